// ApplyParameters on any parameter text: "name=value" pairs separated by
// ';', each handed to the module.  The module here gives every pair back,
// so the pairs are checked against the documented split.
#include <dlfcn.h>

#include <utility>

#include "fuzz_check.h"
#include "native/library_manager.h"
#include "native/wrapper_pkcs11.h"

namespace {

std::vector<std::pair<std::string, std::string>>* g_received;

void Receive(const char* name, const char* value) {
    FUZZ_CHECK(name != nullptr && value != nullptr);
    g_received->emplace_back(name, value);
}

// Every ';'-separated segment that holds a '=' is one pair, divided at its
// first '='; segments without one are skipped.
std::vector<std::pair<std::string, std::string>> ExpectedPairs(const std::string& text) {
    std::vector<std::pair<std::string, std::string>> pairs;
    size_t at = 0;
    while (at < text.size()) {
        size_t end = text.find(';', at);
        if (end == std::string::npos) end = text.size();
        std::string segment = text.substr(at, end - at);
        size_t equals = segment.find('=');
        if (equals != std::string::npos) pairs.emplace_back(segment.substr(0, equals), segment.substr(equals + 1));
        at = end + 1;
    }
    return pairs;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    g_received = new std::vector<std::pair<std::string, std::string>>;
    if (!g_wrapperPKCS11.Load(KVO_FUZZ_MODULE_DIR)) {
        fprintf(stderr, "cannot load the capture module from %s\n", KVO_FUZZ_MODULE_DIR);
        abort();
    }
    void* module = dlopen(KVO_FUZZ_MODULE_DIR "libkvop11.so", RTLD_NOW | RTLD_NOLOAD);
    auto setSink = reinterpret_cast<void (*)(void (*)(const char*, const char*))>(
        module ? dlsym(module, "kvo_fuzz_set_sink") : nullptr);
    FUZZ_CHECK(setSink != nullptr);
    setSink(Receive);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // A C string: up to the first NUL.
    std::string text(reinterpret_cast<const char*>(data), size);
    text = text.c_str();
    g_received->clear();
    ApplyParameters(text.c_str());
    FUZZ_CHECK(*g_received == ExpectedPairs(text));
    return 0;
}
