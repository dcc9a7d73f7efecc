// What the fuzz targets share: a check that stops the run with a message
// (libFuzzer then saves the input), and the input cut into NUL-separated
// pieces.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#define FUZZ_CHECK(condition)                                                               \
    do {                                                                                    \
        if (!(condition)) {                                                                 \
            fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #condition); \
            abort();                                                                        \
        }                                                                                   \
    } while (0)

inline std::vector<std::string> SplitAtNul(const uint8_t* data, size_t size) {
    std::vector<std::string> pieces(1);
    for (size_t i = 0; i < size; ++i) {
        if (data[i] == 0) {
            pieces.emplace_back();
        } else {
            pieces.back().push_back(static_cast<char>(data[i]));
        }
    }
    return pieces;
}
