// One scratch file per fuzzer process, rewritten for every input: the
// readers under test take a path.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "fuzz_check.h"

class ScratchFile {
public:
    ScratchFile() {
        const char* base = getenv("TMPDIR");
        std::string pattern = std::string(base && *base ? base : "/tmp") + "/kvo-fuzz-XXXXXX";
        m_path.assign(pattern);
        int fd = mkstemp(&m_path[0]);
        FUZZ_CHECK(fd >= 0);
        close(fd);
    }
    ~ScratchFile() { unlink(m_path.c_str()); }
    void Write(const void* data, size_t size) {
        int fd = open(m_path.c_str(), O_WRONLY | O_TRUNC);
        FUZZ_CHECK(fd >= 0);
        FUZZ_CHECK(size == 0 || write(fd, data, size) == static_cast<ssize_t>(size));
        close(fd);
    }
    const char* path() const { return m_path.c_str(); }

private:
    std::string m_path;
};
