// ReadOsDescriptionFrom on any file content and buffer size: the first two
// bytes of the input give the size, the rest is /etc/issue.net.  The
// buffer is exactly that size on the heap, so a write past it shows.
#include <cstring>
#include <memory>

#include "bridge/user_agent.h"
#include "fuzz_check.h"
#include "temp_file.h"

namespace {

ScratchFile* g_file;

// What the description must be: what fits of the file's text, cut before
// its second dot, its last blank turned into '/'.
std::string Expected(const std::string& content, uint32_t size) {
    std::string text = content.substr(0, size - 1);
    text = text.c_str();
    size_t dot = text.find('.');
    if (dot != std::string::npos) {
        size_t second = text.find('.', dot + 1);
        if (second != std::string::npos) text.resize(second);
    }
    size_t blank = text.rfind(' ');
    if (blank != std::string::npos) text[blank] = '/';
    return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    if (!g_file) g_file = new ScratchFile;
    uint32_t bufferSize = (static_cast<uint32_t>(data[0]) | static_cast<uint32_t>(data[1]) << 8) % 1024;
    std::string content(reinterpret_cast<const char*>(data) + 2, size - 2);
    g_file->Write(content.data(), content.size());

    if (bufferSize == 0) {
        FUZZ_CHECK(!ReadOsDescriptionFrom(g_file->path(), nullptr, 0));
        return 0;
    }
    std::unique_ptr<char[]> buffer(new char[bufferSize]);
    memset(buffer.get(), 0x55, bufferSize);
    bool ok = ReadOsDescriptionFrom(g_file->path(), buffer.get(), bufferSize);
    FUZZ_CHECK(memchr(buffer.get(), 0, bufferSize) != nullptr);
    std::string expected = Expected(content, bufferSize);
    FUZZ_CHECK(ok == !expected.empty());
    if (ok) FUZZ_CHECK(expected == buffer.get());
    return 0;
}
