// The formatter under hostile formats: any text but string conversions, whose pointers it must
// trust. Whatever the format, it stays inside the buffer, terminates, returns what it stored, and
// a smaller buffer holds a prefix of what a larger one does.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "kernel/core/string.h"

namespace {

constexpr size_t LARGE = 2048;

/// Formats into a block of exactly `size` bytes, which the sanitizer guards.
std::string format(const std::string& fmt, const std::vector<uint32_t>& words, size_t size) {
    std::vector<char> buf(size, '#');
    std::vector<uint32_t> arguments = words;
    // On this architecture an argument list is a pointer to the arguments in memory.
    va_list list = reinterpret_cast<va_list>(arguments.data());
    const int stored = kvsnprintf(buf.data(), size, fmt.c_str(), list);
    const size_t length = strnlen(buf.data(), size);
    if (length == size || stored < 0 || static_cast<size_t>(stored) != length)
        std::abort();
    return std::string(buf.data(), length);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 5)
        return 0;
    uint32_t seed = 0;
    std::memcpy(&seed, data, sizeof seed);
    const size_t small = data[4] % 64u + 1;
    std::string fmt(reinterpret_cast<const char*>(data + 5), size - 5);
    fmt.erase(std::remove(fmt.begin(), fmt.end(), '\0'), fmt.end());
    std::replace(fmt.begin(), fmt.end(), 's', 'd');

    std::vector<uint32_t> words(2 * fmt.size() + 2);
    for (uint32_t& word : words)
        word = (seed = seed * 1664525u + 1013904223u) | 1u;  // %c never stores a terminator
    const std::string whole = format(fmt, words, LARGE);
    // Where its first two characters would not fit, an unknown conversion or a pointer's "0x" is
    // left out.
    const size_t sure = std::min(whole.size(), small - std::min<size_t>(small, 3));
    if (format(fmt, words, small).substr(0, sure) != whole.substr(0, sure))
        std::abort();
    return 0;
}
