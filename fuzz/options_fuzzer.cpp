// Option lookups and ParseNumber on any argument vector.  The pieces of the
// input (split at NUL) are the name looked up, then the arguments.  The
// vector has exactly argc entries and no terminator, so a read past the
// count is an overflow that ASan reports.
#include <cstring>
#include <memory>

#include "app/options.h"
#include "fuzz_check.h"

namespace {

// "0x" and one to eight uppercase hex digits, or one to nine decimal digits:
// the plain values that every caller relies on.
void CheckPlainNumber(const std::string& text) {
    uint32_t parsed = ParseNumber(text.c_str());
    if (text.size() > 2 && text.size() <= 10 && text[0] == '0' && text[1] == 'x' &&
        text.find_first_not_of("0123456789ABCDEF", 2) == std::string::npos) {
        FUZZ_CHECK(parsed == static_cast<uint32_t>(strtoul(text.c_str() + 2, nullptr, 16)));
    }
    if (!text.empty() && text.size() <= 9 && text.find_first_not_of("0123456789") == std::string::npos) {
        FUZZ_CHECK(parsed == static_cast<uint32_t>(strtoul(text.c_str(), nullptr, 10)));
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::vector<std::string> pieces = SplitAtNul(data, size);
    const std::string name = pieces[0];
    std::vector<std::string> arguments(pieces.begin() + 1, pieces.end());
    int32_t argc = static_cast<int32_t>(arguments.size());
    std::unique_ptr<char*[]> argv(new char*[arguments.size() ? arguments.size() : 1]);
    for (size_t i = 0; i < arguments.size(); ++i) argv[i] = &arguments[i][0];

    // What the lookups must find: the first exact match after index 0, and
    // the next argument as its value unless that begins with '-'.
    int32_t index = 0;
    for (int32_t i = 1; i < argc && index == 0; ++i) {
        if (arguments[static_cast<size_t>(i)] == name) index = i;
    }
    const char* expectedValue = nullptr;
    if (index > 0 && index + 1 < argc && argv[index + 1][0] != '-') expectedValue = argv[index + 1];

    const char* value = reinterpret_cast<const char*>(1);
    int found = FindOptionValue(argc, argv.get(), name.c_str(), &value);
    FUZZ_CHECK(found == (index > 0 ? 1 : 0));
    if (!found) {
        FUZZ_CHECK(value == nullptr);
    } else if (expectedValue) {
        FUZZ_CHECK(value == expectedValue);  // points into the vector, not a copy
    } else {
        FUZZ_CHECK(value != nullptr && value[0] == '\0');
    }

    uint32_t number = 0xA5A5A5A5u;
    FUZZ_CHECK(FindOptionNumber(argc, argv.get(), name.c_str(), &number) == found);
    if (!found) {
        FUZZ_CHECK(number == 0xA5A5A5A5u);
    } else {
        FUZZ_CHECK(number == (expectedValue ? ParseNumber(expectedValue) : 0u));
    }
    FUZZ_CHECK(FindOptionNumber(argc, argv.get(), name.c_str(), nullptr) == found);
    FUZZ_CHECK(HasOption(argc, argv.get(), name.c_str()) == found);

    // A count below the vector's size must keep the search inside it.
    if (argc > 1) FindOptionValue(argc - 1, argv.get(), name.c_str(), &value);

    for (const std::string& piece : pieces) {
        CheckPlainNumber(piece);
        ParseHexDigits(piece.c_str());
    }
    return 0;
}
