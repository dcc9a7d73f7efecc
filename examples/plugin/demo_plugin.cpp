// The demo plug-in: a real, small libkvo.so that lets the demo dialogs (PIN
// entry, certificate choice, token administration) talk to a PKCS#11 token
// (SoftHSM2 unless configured otherwise).
//
// Vocabulary offered to pages:
//   GetProperty  ProductInfo, Status ("ready", "no-module", "no-token"),
//                Module, SlotCount, Slot, Token:Label, Token:Serial,
//                Token:Manufacturer, Token:Model, Token:PinState ("ok",
//                "count-low", "final-try", "locked", "not-initialized"),
//                Token:MinPinLength, Token:MaxPinLength, LastResult (the
//                name of the last Invoke's result, e.g. "CKR_PIN_INCORRECT")
//   SetProperty  Pin, OldPin, NewPin, SoPin (kept in locked memory; all
//                four wiped by the next Login, ChangePin or UnblockPin,
//                whatever its outcome), Slot (a slot id), Key (a token
//                serial or label selects that token)
//   EnumProperty ("Slot", "<n>"): the n-th token as JSON {slot, label,
//                serial, manufacturer, model, selected}, or "" past the end
//                ("Certificates", ""): the selected token's X.509
//                certificates that need no login, as one JSON array of
//                {id (CKA_ID in lowercase hex), label, subject, issuer
//                (common names), notBefore, notAfter ("2024-01-31T12:00:00Z"),
//                keyUsage (X.509 names, or null when unrestricted),
//                extendedKeyUsage (names or dotted OIDs)}; one that cannot
//                be read has only id, label and "unreadable": true.  "" when
//                the token cannot be asked.
//   Invoke       Login (Pin; C_Login as user), ChangePin (OldPin, NewPin;
//                C_SetPIN), UnblockPin (SoPin, NewPin; C_InitPIN as SO),
//                Refresh (list the tokens again); each gives the module's
//                own return code
// The PINs and the key never reach the log.
#include <fcntl.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <new>
#include <string>
#include <vector>

#include <glib.h>

#include "certificate.h"
#include "kavori/plugin.h"
#include "pkcs11_module.h"
#include "secret_buffer.h"

namespace {

const char kProductInfo[] = "Kavori Demo;demo;01000000,1";
const char kDefaultModule[] = "/usr/lib/softhsm/libsofthsm2.so";
const char kConfigFile[] = "kvo-demo.conf";

TraceCallback g_trace = nullptr;

// Lines go to the host's trace sink when it gives one, and to the file named
// by KAVORI_DEMO_LOG; without either, nothing is logged.
void Log(const char* format, ...) __attribute__((format(printf, 1, 2)));
void Log(const char* format, ...) {
    const char* path = getenv("KAVORI_DEMO_LOG");
    bool toFile = path && *path;
    if (!g_trace && !toFile) return;
    char line[512];
    va_list args;
    va_start(args, format);
    int length = vsnprintf(line, sizeof line - 1, format, args);
    va_end(args);
    if (length < 0) return;
    if (length > static_cast<int>(sizeof line) - 2) length = static_cast<int>(sizeof line) - 2;
    if (g_trace) g_trace(line, length);
    if (!toFile) return;
    line[length++] = '\n';
    int fd = open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) return;
    ssize_t ignored = write(fd, line, static_cast<size_t>(length));
    (void)ignored;
    close(fd);
}

// A JSON string of text.  Token labels and certificate names may hold bytes
// that are no UTF-8; they become U+FFFD, so that one bad name cannot make
// the page's JSON.parse refuse the whole answer.
std::string JsonString(const std::string& text) {
    gchar* valid = g_utf8_make_valid(text.data(), static_cast<gssize>(text.size()));
    std::string out = "\"";
    for (const char* p = valid; *p; ++p) {
        unsigned char c = static_cast<unsigned char>(*p);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c < 0x20) {
            char escaped[8];
            snprintf(escaped, sizeof escaped, "\\u%04x", c);
            out += escaped;
        } else {
            out += static_cast<char>(c);
        }
    }
    g_free(valid);
    return out + "\"";
}

std::string JsonList(const std::vector<std::string>& names) {
    std::string out = "[";
    for (const std::string& name : names) out += (out.size() > 1 ? "," : "") + JsonString(name);
    return out + "]";
}

std::string Hex(const std::string& bytes) {
    static const char kDigits[] = "0123456789abcdef";
    std::string out;
    for (unsigned char c : bytes) {
        out += kDigits[c >> 4];
        out += kDigits[c & 15];
    }
    return out;
}

std::string CertificateJson(const CertificateObject& object) {
    std::string json = "{\"id\":\"" + Hex(object.id) + "\",\"label\":" + JsonString(object.label);
    CertificateInfo info;
    if (!ReadCertificate(
            reinterpret_cast<const unsigned char*>(object.value.data()), object.value.size(), &info))
        return json + ",\"unreadable\":true}";
    return json + ",\"subject\":" + JsonString(info.subject) + ",\"issuer\":" + JsonString(info.issuer) +
           ",\"notBefore\":" + JsonString(info.notBefore) + ",\"notAfter\":" + JsonString(info.notAfter) +
           ",\"keyUsage\":" + (info.hasKeyUsage ? JsonList(info.keyUsage) : "null") +
           ",\"extendedKeyUsage\":" + JsonList(info.extendedKeyUsage) + "}";
}

bool ParseUnsigned(const char* text, unsigned long* value) {
    if (!text || !*text) return false;
    char* end = nullptr;
    *value = strtoul(text, &end, 10);
    return end && *end == '\0' && text[0] != '-';
}

class DemoPlugin {
public:
    ~DemoPlugin() {
        for (SecretBuffer* secret : {&m_pin, &m_oldPin, &m_newPin, &m_soPin, &m_key}) secret->Wipe();
    }

    char* GetProperty(const std::string& name);
    char* EnumProperty(const std::string& first, const char* second);
    bool SetProperty(const std::string& name, const char* value);
    CK_RV Invoke(const std::string& command);

private:
    std::string ModulePath() const;
    void EnsureModule();
    CK_RV Refresh();
    void ApplyKey();
    const TokenEntry* Selected() const;
    bool ReadTokenInfo(CK_TOKEN_INFO* info);
    CK_RV Login();
    CK_RV ChangePin(bool unblock);
    std::string Certificates();
    SecretBuffer* Secret(const std::string& name, const char** words = nullptr);
    char* Answer(const std::string& text) {
        m_answer = text;
        // A writable buffer of our own: the host may split it in place.
        return m_answer.empty() ? nullptr : &m_answer[0];
    }

    std::string m_workingDirectory;
    Pkcs11Module m_module;
    bool m_moduleTried = false;
    CK_RV m_moduleResult = CKR_OK;
    std::string m_modulePath;
    std::vector<TokenEntry> m_tokens;
    bool m_hasSelection = false;
    CK_SLOT_ID m_selected = 0;
    SecretBuffer m_pin;
    SecretBuffer m_oldPin;
    SecretBuffer m_newPin;
    SecretBuffer m_soPin;
    SecretBuffer m_key;
    bool m_hasResult = false;
    CK_RV m_lastResult = CKR_OK;
    std::string m_answer;
};

DemoPlugin* g_plugin = nullptr;

// The environment wins, so that one run can point elsewhere; then a line
// "module=<path>" in kvo-demo.conf of the root directory; then SoftHSM2.
std::string DemoPlugin::ModulePath() const {
    const char* fromEnvironment = getenv("KAVORI_DEMO_MODULE");
    if (fromEnvironment && *fromEnvironment) return fromEnvironment;
    if (!m_workingDirectory.empty()) {
        std::string path = m_workingDirectory;
        if (path.back() != '/') path += '/';
        std::ifstream config(path + kConfigFile);
        std::string line;
        while (std::getline(config, line)) {
            size_t start = line.find_first_not_of(" \t");
            if (start == std::string::npos || line[start] == '#') continue;
            if (line.compare(start, 6, "module") != 0) continue;
            size_t equals = line.find('=', start + 6);
            if (equals == std::string::npos || line.find_first_not_of(" \t", start + 6) != equals) continue;
            size_t begin = line.find_first_not_of(" \t", equals + 1);
            size_t end = line.find_last_not_of(" \t\r");
            if (begin != std::string::npos && end >= begin) return line.substr(begin, end - begin + 1);
        }
    }
    return kDefaultModule;
}

// The module is opened on first need rather than in PlgInitialize: the
// root directory, which may name another module, arrives only afterwards.
void DemoPlugin::EnsureModule() {
    if (m_moduleTried) return;
    m_moduleTried = true;
    m_modulePath = ModulePath();
    std::string why;
    m_moduleResult = m_module.Open(m_modulePath, &why);
    if (m_moduleResult != CKR_OK) {
        Log("Module %s not usable: %s (%s)",
            m_modulePath.c_str(),
            why.c_str(),
            ResultName(m_moduleResult).c_str());
        return;
    }
    Log("Module %s opened", m_modulePath.c_str());
    Refresh();
}

CK_RV DemoPlugin::Refresh() {
    if (!m_module.open()) {
        m_moduleTried = false;
        EnsureModule();
        return m_moduleResult;
    }
    CK_RV rv = m_module.ListTokens(&m_tokens);
    if (rv != CKR_OK) Log("Slot list failed: %s", ResultName(rv).c_str());
    // A token that went away gives up the selection; the first listing also
    // honours a key that arrived before the module was opened.
    if (!Selected()) {
        m_hasSelection = !m_tokens.empty();
        if (m_hasSelection) m_selected = m_tokens.front().slot;
        ApplyKey();
    }
    Log("%zu token(s) found", m_tokens.size());
    return rv;
}

// The caller names the token that the dialog is for by its serial number or
// its label; a key that names none leaves the selection as it is.
void DemoPlugin::ApplyKey() {
    if (m_key.empty()) return;
    std::string key(m_key.data(), m_key.size());
    for (const TokenEntry& token : m_tokens) {
        if (token.serial == key || token.label == key) {
            m_selected = token.slot;
            m_hasSelection = true;
            Log("Key selects the token in slot %lu", static_cast<unsigned long>(token.slot));
            break;
        }
    }
    explicit_bzero(&key[0], key.size());
}

const TokenEntry* DemoPlugin::Selected() const {
    if (!m_hasSelection) return nullptr;
    for (const TokenEntry& token : m_tokens) {
        if (token.slot == m_selected) return &token;
    }
    return nullptr;
}

bool DemoPlugin::ReadTokenInfo(CK_TOKEN_INFO* info) {
    EnsureModule();
    const TokenEntry* token = Selected();
    return token && m_module.GetTokenInfo(token->slot, info) == CKR_OK;
}

char* DemoPlugin::GetProperty(const std::string& name) {
    if (name == "ProductInfo") return Answer(kProductInfo);
    if (name == "Key" || Secret(name)) return nullptr;  // secrets are not read back
    Log("GetProperty %s", name.c_str());
    if (name == "LastResult") return m_hasResult ? Answer(ResultName(m_lastResult)) : nullptr;
    EnsureModule();
    if (name == "Module") return Answer(m_modulePath);
    if (name == "Status") {
        if (!m_module.open()) return Answer("no-module");
        return Answer(Selected() ? "ready" : "no-token");
    }
    if (name == "SlotCount") return Answer(std::to_string(m_tokens.size()));
    const TokenEntry* token = Selected();
    if (name == "Slot") return token ? Answer(std::to_string(token->slot)) : nullptr;
    if (name.compare(0, 6, "Token:") != 0) return nullptr;
    CK_TOKEN_INFO info;
    if (!ReadTokenInfo(&info)) return nullptr;
    std::string field = name.substr(6);
    if (field == "Label") return Answer(TokenText(info.label, sizeof info.label));
    if (field == "Serial") return Answer(TokenText(info.serialNumber, sizeof info.serialNumber));
    if (field == "Manufacturer") return Answer(TokenText(info.manufacturerID, sizeof info.manufacturerID));
    if (field == "Model") return Answer(TokenText(info.model, sizeof info.model));
    if (field == "MinPinLength") return Answer(std::to_string(info.ulMinPinLen));
    if (field == "MaxPinLength") return Answer(std::to_string(info.ulMaxPinLen));
    if (field == "PinState") {
        // PKCS#11 tells no number of tries, only these stages.
        if (info.flags & CKF_USER_PIN_LOCKED) return Answer("locked");
        if (!(info.flags & CKF_USER_PIN_INITIALIZED)) return Answer("not-initialized");
        if (info.flags & CKF_USER_PIN_FINAL_TRY) return Answer("final-try");
        if (info.flags & CKF_USER_PIN_COUNT_LOW) return Answer("count-low");
        return Answer("ok");
    }
    return nullptr;
}

std::string DemoPlugin::Certificates() {
    EnsureModule();
    const TokenEntry* token = Selected();
    std::vector<CertificateObject> objects;
    CK_RV rv = token ? m_module.ListCertificates(token->slot, &objects) : CKR_TOKEN_NOT_PRESENT;
    Log("%zu certificate(s) listed: %s", objects.size(), ResultName(rv).c_str());
    if (rv != CKR_OK) return "";
    std::string json = "[";
    for (const CertificateObject& object : objects)
        json += (json.size() > 1 ? "," : "") + CertificateJson(object);
    return json + "]";
}

char* DemoPlugin::EnumProperty(const std::string& first, const char* second) {
    if (first == "Certificates" && second && !*second) return Answer(Certificates());
    if (first != "Slot") return nullptr;
    unsigned long index = 0;
    if (!ParseUnsigned(second, &index)) return nullptr;
    EnsureModule();
    if (index >= m_tokens.size()) return nullptr;
    const TokenEntry& token = m_tokens[index];
    std::string json =
        "{\"slot\":" + std::to_string(token.slot) + ",\"label\":" + JsonString(token.label) +
        ",\"serial\":" + JsonString(token.serial) + ",\"manufacturer\":" + JsonString(token.manufacturer) +
        ",\"model\":" + JsonString(token.model) +
        ",\"selected\":" + (m_hasSelection && token.slot == m_selected ? "true" : "false") + "}";
    return Answer(json);
}

// The PINs a page may set, with the words the log uses for them.
SecretBuffer* DemoPlugin::Secret(const std::string& name, const char** words) {
    struct Entry {
        const char* name;
        SecretBuffer* secret;
        const char* words;
    };
    const Entry kSecrets[] = {{"Pin", &m_pin, "PIN"},
                              {"OldPin", &m_oldPin, "Old PIN"},
                              {"NewPin", &m_newPin, "New PIN"},
                              {"SoPin", &m_soPin, "SO PIN"}};
    for (const Entry& entry : kSecrets) {
        if (name != entry.name) continue;
        if (words) *words = entry.words;
        return entry.secret;
    }
    return nullptr;
}

bool DemoPlugin::SetProperty(const std::string& name, const char* value) {
    const char* words = nullptr;
    if (SecretBuffer* secret = Secret(name, &words)) {
        secret->Set(value);
        Log("%s %s", words, secret->empty() && !secret->overflowed() ? "cleared" : "handed over");
        return true;
    }
    if (name == "Key") {
        m_key.Set(value);
        Log(m_key.empty() ? "Key cleared" : "Key handed over");
        if (m_moduleTried) ApplyKey();  // otherwise the first listing applies it
        return true;
    }
    if (name == "Slot") {
        unsigned long slot = 0;
        if (!ParseUnsigned(value, &slot)) return false;
        EnsureModule();
        for (const TokenEntry& token : m_tokens) {
            if (token.slot == slot) {
                m_selected = token.slot;
                m_hasSelection = true;
                return true;
            }
        }
        return false;
    }
    if (name == "WorkingDirectory") {
        m_workingDirectory = value ? value : "";
        return true;
    }
    return name == "Server";  // known, nothing to do with it
}

CK_RV DemoPlugin::Login() {
    EnsureModule();
    if (!m_module.open()) return m_moduleResult;
    const TokenEntry* token = Selected();
    if (!token) return CKR_TOKEN_NOT_PRESENT;
    if (m_pin.overflowed()) return CKR_PIN_LEN_RANGE;
    // Without a PIN of its own a Login would only cost the user a try.
    if (m_pin.empty()) return CKR_ARGUMENTS_BAD;
    return m_module.Login(token->slot, m_pin);
}

// C_SetPIN with the old PIN, or C_InitPIN after the SO's login (unblock).
CK_RV DemoPlugin::ChangePin(bool unblock) {
    EnsureModule();
    if (!m_module.open()) return m_moduleResult;
    const TokenEntry* token = Selected();
    if (!token) return CKR_TOKEN_NOT_PRESENT;
    const SecretBuffer& proof = unblock ? m_soPin : m_oldPin;
    if (proof.overflowed() || m_newPin.overflowed()) return CKR_PIN_LEN_RANGE;
    // A missing PIN would only cost a try (or, for C_SetPIN, mean the
    // protected path that the demo does not offer).
    if (proof.empty() || m_newPin.empty()) return CKR_ARGUMENTS_BAD;
    return unblock ? m_module.InitPin(token->slot, m_soPin, m_newPin)
                   : m_module.ChangePin(token->slot, m_oldPin, m_newPin);
}

CK_RV DemoPlugin::Invoke(const std::string& command) {
    CK_RV rv;
    if (command == "Login" || command == "ChangePin" || command == "UnblockPin") {
        rv = command == "Login" ? Login() : ChangePin(command == "UnblockPin");
        // One PIN, one attempt: whatever happened, the PINs are gone now.
        for (SecretBuffer* secret : {&m_pin, &m_oldPin, &m_newPin, &m_soPin}) secret->Wipe();
        const TokenEntry* token = Selected();
        Log("%s on slot %lu: %s",
            command.c_str(),
            token ? static_cast<unsigned long>(token->slot) : 0UL,
            ResultName(rv).c_str());
    } else if (command == "Refresh") {
        EnsureModule();
        rv = Refresh();
    } else {
        rv = CKR_FUNCTION_NOT_SUPPORTED;
        // The first word only: the rest of an unknown command may be a secret.
        Log("Invoke %s: not supported", command.substr(0, command.find(' ')).c_str());
    }
    m_hasResult = true;
    m_lastResult = rv;
    return rv;
}

DemoPlugin* FromInstance(PlgInstance instance) { return instance == g_plugin ? g_plugin : nullptr; }

}  // namespace

// The entry points: nothing may be thrown across the C boundary.

intptr_t PlgSetTraceCallback(TraceCallback callback) {
    g_trace = callback;
    return 1;
}

intptr_t PlgInitialize(void*, void*, void*, void*, PlgInstance* instance) {
    if (!instance) return 0;
    // The host may call this again after a failed start; one instance serves.
    if (!g_plugin) g_plugin = new (std::nothrow) DemoPlugin();
    *instance = g_plugin;
    return g_plugin ? 1 : 0;
}

intptr_t PlgFinalize(PlgInstance instance) {
    DemoPlugin* plugin = FromInstance(instance);
    if (!plugin) return 0;
    delete plugin;  // wipes the secrets and finalises the module
    g_plugin = nullptr;
    return 1;
}

intptr_t PlgSetProperty(PlgInstance instance, const char* name, const char* value) {
    DemoPlugin* plugin = FromInstance(instance);
    if (!plugin || !name) return 0;
    try {
        return plugin->SetProperty(name, value) ? 1 : 0;
    } catch (...) {
        return 0;
    }
}

char* PlgGetProperty(PlgInstance instance, const char* name) {
    DemoPlugin* plugin = FromInstance(instance);
    if (!plugin || !name) return nullptr;
    try {
        return plugin->GetProperty(name);
    } catch (...) {
        return nullptr;
    }
}

char* PlgEnumProperty(PlgInstance instance, const char* first, const char* second) {
    DemoPlugin* plugin = FromInstance(instance);
    if (!plugin || !first) return nullptr;
    try {
        return plugin->EnumProperty(first, second);
    } catch (...) {
        return nullptr;
    }
}

int32_t PlgInvoke(PlgInstance instance, const char* command) {
    DemoPlugin* plugin = FromInstance(instance);
    if (!plugin || !command) return static_cast<int32_t>(CKR_ARGUMENTS_BAD);
    try {
        // Only the low 32 bits reach the page; PKCS#11 codes fit in them.
        return static_cast<int32_t>(plugin->Invoke(command));
    } catch (...) {
        return static_cast<int32_t>(CKR_GENERAL_ERROR);
    }
}
