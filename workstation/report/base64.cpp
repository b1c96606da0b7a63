#include "workstation/report/base64.h"

namespace qel::vexa::report {

std::string base64(std::span<const std::uint8_t> bytes) {
    constexpr const char* digits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string text;
    text.reserve((bytes.size() + 2) / 3 * 4);
    std::uint32_t word = 0;
    unsigned bits = 0;
    for (const std::uint8_t byte : bytes) {
        word = (word << 8 | byte) & 0xffffffU;
        for (bits += 8; bits >= 6; bits -= 6) {
            text += digits[word >> (bits - 6) & 0x3fU];
        }
    }
    if (bits != 0) {
        text += digits[word << (6 - bits) & 0x3fU];
    }
    text.resize((text.size() + 3) / 4 * 4, '=');
    return text;
}

}  // namespace qel::vexa::report
