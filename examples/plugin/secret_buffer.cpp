#include "secret_buffer.h"

#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

size_t PageSize() {
    long size = sysconf(_SC_PAGESIZE);
    return size > 0 ? static_cast<size_t>(size) : 4096;
}

}  // namespace

SecretBuffer::SecretBuffer() {
    // A page of its own, so that locking and the no-dump advice cover the
    // secret and nothing else.
    void* page = mmap(nullptr, PageSize(), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (page == MAP_FAILED) return;
    m_data = static_cast<char*>(page);
    // Both are best effort: a low RLIMIT_MEMLOCK must not stop the dialog.
    (void)mlock(m_data, PageSize());
    (void)madvise(m_data, PageSize(), MADV_DONTDUMP);
}

SecretBuffer::~SecretBuffer() {
    if (!m_data) return;
    explicit_bzero(m_data, PageSize());
    munlock(m_data, PageSize());
    munmap(m_data, PageSize());
}

void SecretBuffer::Set(const char* text) {
    Wipe();
    if (!text || !m_data) return;
    size_t length = strnlen(text, kCapacity);
    if (length >= kCapacity) {
        m_overflowed = true;
        return;
    }
    memcpy(m_data, text, length);
    m_data[length] = '\0';
    m_size = length;
}

void SecretBuffer::Wipe() {
    if (m_data) explicit_bzero(m_data, kCapacity);
    m_size = 0;
    m_overflowed = false;
}
