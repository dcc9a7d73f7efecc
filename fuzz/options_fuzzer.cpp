// Option lookups on any argument vector: the input's NUL-separated pieces
// are the name looked up, then the arguments.  The vector has exactly argc
// entries and no terminator, so a read past the count is an overflow.
#include "app/options.h"
#include "fuzz_check.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::vector<std::string> pieces = SplitAtNul(data, size);
    const std::string name = pieces[0];
    int32_t argc = static_cast<int32_t>(pieces.size() - 1);
    std::vector<char*> argv(pieces.size() - 1);  // exactly argc entries on the heap
    for (int32_t i = 0; i < argc; ++i) argv[i] = &pieces[i + 1][0];

    // The first exact match after index 0; its value: the next argument unless it begins with '-'.
    int32_t at = 0;
    for (int32_t i = 1; i < argc && !at; ++i) at = name == argv[i] ? i : 0;
    const char* want = at && at + 1 < argc && argv[at + 1][0] != '-' ? argv[at + 1] : nullptr;
    const char* value = "unset";
    int found = FindOptionValue(argc, argv.data(), name.c_str(), &value);
    FUZZ_CHECK(found == (at > 0) && (!found ? !value : want ? value == want : value && !*value));  // no copy
    uint32_t number = 0xA5A5A5A5u;
    FUZZ_CHECK(FindOptionNumber(argc, argv.data(), name.c_str(), &number) == found &&
               number == (!found ? 0xA5A5A5A5u
                          : want ? ParseNumber(want)
                                 : 0u));
    FUZZ_CHECK(FindOptionNumber(argc, argv.data(), name.c_str(), nullptr) == found &&
               HasOption(argc, argv.data(), name.c_str()) == found);
    if (argc > 1) FindOptionValue(argc - 1, argv.data(), name.c_str(), &value);  // stays inside the count
    FUZZ_CHECK(ParseNumber(nullptr) == 0);

    // Plain values: up to nine decimal digits; uppercase hex digits, alone or after "0x", the last eight
    // counting.
    for (const std::string& t : pieces) {
        bool prefixed = t.compare(0, 2, "0x") == 0;
        std::string hex = t.substr(prefixed ? 2 : 0);
        uint32_t parsed = ParseNumber(t.c_str()), digits = ParseHexDigits(t.c_str());
        uint32_t last8 =
            static_cast<uint32_t>(strtoul(hex.c_str() + (hex.size() > 8 ? hex.size() - 8 : 0), nullptr, 16));
        if (!hex.empty() && hex.find_first_not_of("0123456789ABCDEF") == std::string::npos)
            FUZZ_CHECK((prefixed ? parsed : digits) == last8);
        if (!t.empty() && t.size() <= 9 && t.find_first_not_of("0123456789") == std::string::npos)
            FUZZ_CHECK(parsed == strtoul(t.c_str(), nullptr, 10));
    }
    return 0;
}
