// The user agent's composition from WebKit's default, the plug-in's
// "ProductInfo" (split in place) and /etc/issue.net, with any buffer size;
// the version digits alone; and the check of what WebKit would carry.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstring>
#include <memory>

#include "bridge/user_agent.h"
#include "fuzz_check.h"
#include "temp_file.h"

namespace {

ScratchFile* g_file;

std::unique_ptr<char[]> HeapCopy(const std::string& text) {
    std::unique_ptr<char[]> copy(new char[text.size() + 1]);
    memcpy(copy.get(), text.c_str(), text.size() + 1);
    return copy;
}

// At most "dd.dd": a digit 1-9, a digit, a dot, a digit 1-9, a digit, each
// digit present or not.
bool VersionShape(const char* text) {
    const char* dot = strchr(text, '.');
    if (!dot || dot - text > 2 || strlen(dot + 1) > 2) return false;
    for (const char* p = text; *p; ++p) {
        if (p != dot && (*p < '0' || *p > '9')) return false;
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (!g_file) g_file = new ScratchFile;
    FuzzedDataProvider input(data, size);
    uint32_t bufferSize = input.ConsumeIntegralInRange<uint32_t>(1, 400);
    std::string agent = input.ConsumeRandomLengthString(300);
    std::string product = input.ConsumeRandomLengthString(300);
    std::string field = input.ConsumeRandomLengthString(8);
    std::string os = input.ConsumeRemainingBytesAsString();
    g_file->Write(os.data(), os.size());

    std::unique_ptr<char[]> productInfo = HeapCopy(product);
    std::unique_ptr<char[]> buffer(new char[bufferSize]());
    bool ok = ComposeUserAgentTextFrom(g_file->path(), agent.c_str(), productInfo.get(), buffer.get(), bufferSize);
    FUZZ_CHECK(memchr(buffer.get(), 0, bufferSize) != nullptr);
    if (ok) {
        // The default agent, the product token, the version digits, and
        // maybe a blank and the description.
        std::string composed = buffer.get();
        std::string head = std::string(agent.c_str()) + " Kavori/";
        FUZZ_CHECK(composed.compare(0, head.size(), head) == 0);
        std::string rest = composed.substr(head.size());
        std::string version = rest.substr(0, rest.find(' '));
        FUZZ_CHECK(VersionShape(version.c_str()));
        // The product information had its two ';' and a ',' after them.
        std::string text = product.c_str();
        size_t first = text.find(';');
        FUZZ_CHECK(first != std::string::npos);
        size_t second = text.find(';', first + 1);
        FUZZ_CHECK(second != std::string::npos && text.find(',', second + 1) != std::string::npos);
    }

    // The digits of a field, with a length that may run past its text.
    char out[16] = "";
    AppendVersionDigits(field.c_str(), field.size(), out);
    FUZZ_CHECK(VersionShape(out));
    out[0] = '\0';
    AppendVersionDigits(nullptr, field.size(), out);
    FUZZ_CHECK(strcmp(out, ".") == 0);

    IsCarriedUserAgent(agent.c_str());
    if (ok) IsCarriedUserAgent(buffer.get());
    return 0;
}
