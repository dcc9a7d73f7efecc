// What the targets share: a check that stops the run (libFuzzer then keeps
// the input), and the input cut into NUL-separated pieces.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#define FUZZ_CHECK(c) \
    ((c) ? (void)0 : (fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #c), abort()))

// At least `least` pieces: the missing ones are empty.
inline std::vector<std::string> SplitAtNul(const uint8_t* data, size_t size, size_t least = 1) {
    std::vector<std::string> pieces(1);
    for (size_t i = 0; i < size; ++i) {
        if (data[i])
            pieces.back() += static_cast<char>(data[i]);
        else
            pieces.emplace_back();
    }
    if (pieces.size() < least) pieces.resize(least);
    return pieces;
}
