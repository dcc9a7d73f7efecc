#include "app/options.h"

#include <cstdlib>
#include <cstring>

namespace {

// Index of the first argument equal to name, or 0 (index 0 is the host's
// own path and is never an option).
int32_t FindOption(int32_t argc, char** argv, const char* name) {
    if (argc < 2 || argv == nullptr || name == nullptr) return 0;
    for (int32_t i = 1; i < argc; ++i) {
        if (argv[i] != nullptr && strcmp(argv[i], name) == 0) return i;
    }
    return 0;
}

// The argument after the option when it can be a value; anything beginning
// with '-' never is, so no value can be mistaken for an option.
const char* ValueAfter(int32_t argc, char** argv, int32_t index) {
    if (index + 1 >= argc) return nullptr;
    const char* next = argv[index + 1];
    if (next == nullptr || next[0] == '-') return nullptr;
    return next;
}

}  // namespace

int FindOptionValue(int32_t argc, char** argv, const char* name, const char** value) {
    if (value != nullptr) *value = nullptr;
    int32_t index = FindOption(argc, argv, name);
    if (index == 0) return 0;
    if (value != nullptr) {
        const char* text = ValueAfter(argc, argv, index);
        *value = text != nullptr ? text : "";
    }
    return 1;
}

int FindOptionNumber(int32_t argc, char** argv, const char* name, uint32_t* number) {
    int32_t index = FindOption(argc, argv, name);
    if (index == 0) return 0;
    if (number != nullptr) {
        *number = 0;
        const char* text = ValueAfter(argc, argv, index);
        if (text != nullptr) *number = ParseNumber(text);
    }
    return 1;
}

int HasOption(int32_t argc, char** argv, const char* name) {
    return FindOptionNumber(argc, argv, name, nullptr);
}

uint32_t ParseNumber(const char* text) {
    if (text == nullptr) return 0;
    // Only a lowercase "0x" introduces hexadecimal; "0X..." reads as decimal 0.
    if (text[0] == '0' && text[1] == 'x') return ParseHexDigits(text + 2);
    return static_cast<uint32_t>(static_cast<unsigned long>(strtol(text, nullptr, 10)));
}

uint32_t ParseHexDigits(const char* text) {
    // Every byte takes the digit rule as it stands ('0'-based up to '9',
    // 'A'-based above, on the unsigned byte), and the sum is taken modulo
    // 2^32: each digit is worth its value times 16 to the power of the digits
    // after it.  So "0x0bb8" or a blank still gives a number, never undefined
    // behaviour, any text of real digits keeps its plain value, and of a
    // longer run of real digits only the last eight count.  Accumulating
    // with a 4-bit shift computes exactly that without ever shifting by 32.
    uint32_t result = 0;
    if (text == nullptr) return 0;
    for (const unsigned char* p = reinterpret_cast<const unsigned char*>(text); *p != 0; ++p) {
        uint32_t digit = *p <= '9' ? static_cast<uint32_t>(*p) - '0' : static_cast<uint32_t>(*p) - 55u;
        result = (result << 4) + digit;
    }
    return result;
}
