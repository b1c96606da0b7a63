// Number conversion against the C library's 64 bits. The first byte of an input is the base plus 1, the rest
// the text.
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <tuple>

#include "stdlib/vexa_stdlib.h"

namespace {

using outcome = std::tuple<std::uint32_t, std::uint32_t, std::ptrdiff_t>;  // result, value, end

outcome expected(const std::string& text, int base) {
    std::size_t start = 0;
    while (text[start] == ' ' || text[start] == '\t') {
        ++start;
    }
    const std::size_t digits = start + (std::strchr("+-", text[start]) != nullptr && text[start] != '\0');
    std::string word = text.substr(digits, 3);
    for (char& c : word) {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    if (word == "inf" || word == "nan") {
        return {0, 0, 0};
    }
    if (base == 16 && word.substr(0, 2) == "0x") {
        return {0, 0, digits + 1};
    }
    while (std::isspace(static_cast<unsigned char>(text[start]))) {
        ++start;
    }
    if (base < 0 || base == 1 || base > 36) {
        return {start != 0, 0, start};
    }
    char* end = nullptr;
    errno = 0;
    std::uint64_t value = std::strtoull(text.c_str() + start, &end, base);
    const std::ptrdiff_t length = end - text.c_str();
    const bool negative = text[start] == '-';
    if (errno == ERANGE || (negative ? -value : value) >> 32 != 0) {
        return {1, 0xffffffff, length};
    }
    return negative ? outcome{1, 0, length} : outcome{0, value, length};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    const int base = data[0] % 40 - 1;
    const std::string text = std::string(reinterpret_cast<const char*>(data + 1), size - 1).c_str();
    const outcome model = expected(text, base);
    std::uint32_t value = ~std::get<1>(model);
    char* end = nullptr;
    const std::uint32_t result = stdlibp_nonline_strtou32(&value, text.c_str(), &end, base);
    if (outcome{result, value, end - text.c_str()} != model ||
        stdlibp_nonline_strtou32(&value, text.c_str(), nullptr, base) != result ||
        value != std::get<1>(model)) {
        std::abort();
    }
    return 0;
}
