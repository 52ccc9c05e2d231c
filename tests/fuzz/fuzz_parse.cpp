// The number parsers and string routines under any text, beside the C++ library's own.
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "kernel/core/string.h"

namespace {

void require(bool holds) {
    if (!holds)
        std::abort();
}

bool digits_only(const std::string& text) {
    return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

/// The value of a run of digits; larger than any limit when it does not fit.
unsigned long long digits_value(const std::string& text) {
    errno = 0;
    return std::strtoull(text.c_str(), nullptr, 10);
}

void check_strict_parsers(const std::string& text) {
    uint32_t number = 77;
    const std::string after_plus = !text.empty() && text[0] == '+' ? text.substr(1) : text;
    const bool fits = digits_only(after_plus) && digits_value(after_plus) <= UINT32_MAX;
    require((safe_parse_uint(text.c_str(), &number) == 0) == fits);
    require(number == (fits ? static_cast<uint32_t>(digits_value(after_plus)) : 77u));

    int value = 77;
    const int status = safe_atoi(text.c_str(), &value);
    require(status == 0 || value == 77);
    if (status == 0)
        require(value == std::strtoll(text.c_str(), nullptr, 10));
    else
        require(!(digits_only(text) && digits_value(text) <= INT32_MAX));
}

void check_strings(const std::string& text, const std::string& other) {
    require(vorn_strlen(text.c_str()) == text.size());
    require((vorn_strcmp(text.c_str(), other.c_str()) < 0) == (text < other));
    const char* found = vorn_strstr(text.c_str(), other.c_str());
    const size_t at = text.find(other);
    require(found == (at == std::string::npos ? nullptr : text.c_str() + at));
    char copy[16];
    require(string_copy(copy, text.c_str(), sizeof copy) == std::strlen(copy));
    require(text.compare(0, sizeof copy - 1, copy) == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    const std::string text = input.c_str();
    const std::string rest = text.size() < size ? input.c_str() + text.size() + 1 : "";
    check_strict_parsers(text);
    check_strings(text, rest);
    (void)vorn_atoi(text.c_str());
    (void)parse_tick(text.c_str());
    (void)parse_hex(text.c_str());
    return 0;
}
