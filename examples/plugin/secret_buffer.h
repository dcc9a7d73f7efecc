// A buffer for secrets (the PIN, the caller's key): kept out of swap and core
// dumps where the system allows it, and wiped on every change and at the end.
#pragma once

#include <cstddef>

class SecretBuffer {
public:
    // PKCS#11 tokens allow PINs of up to 255 bytes (SoftHSM2's maximum).
    static constexpr size_t kCapacity = 256;

    SecretBuffer();
    ~SecretBuffer();
    SecretBuffer(const SecretBuffer&) = delete;
    SecretBuffer& operator=(const SecretBuffer&) = delete;

    // Replaces the content. A text that does not fit leaves the buffer empty
    // and marked as overflowed, so that the caller can report a length error
    // instead of using a cut secret.
    void Set(const char* text);
    void Wipe();

    const char* data() const { return m_data; }
    size_t size() const { return m_size; }
    bool empty() const { return m_size == 0; }
    bool overflowed() const { return m_overflowed; }

private:
    char* m_data = nullptr;
    size_t m_size = 0;
    bool m_overflowed = false;
};
