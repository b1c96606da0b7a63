#include "workstation/protocol/messages.h"

#include <algorithm>

namespace qel::vexa::protocol {

namespace {

// The length of the character at the start of a text; 0 when it is not valid or a control character.
std::size_t character_length(std::string_view text) {
    const auto byte = [text](std::size_t i) {
        return i < text.size() ? static_cast<unsigned>(static_cast<unsigned char>(text[i])) : 0U;
    };
    const unsigned first = byte(0);
    if (first < 0x80) {
        return first >= 0x20 && first != 0x7f ? 1 : 0;
    }
    const std::size_t length = first < 0xc0 ? 0 : first < 0xe0 ? 2 : first < 0xf0 ? 3 : first < 0xf8 ? 4 : 0;
    if (length == 0) {
        return 0;
    }
    std::uint32_t code = first & (0xffU >> (length + 1));
    for (std::size_t i = 1; i < length; ++i) {
        if ((byte(i) & 0xc0U) != 0x80) {
            return 0;
        }
        code = code << 6 | (byte(i) & 0x3fU);
    }
    constexpr std::uint32_t least[] = {0, 0, 0xa0, 0x800, 0x10000};  // up to 0x9f there are controls
    const bool is_surrogate = code >= 0xd800 && code < 0xe000;
    return code < least[length] || code > 0x10ffff || is_surrogate ? 0 : length;
}

}  // namespace

bool take_text(const field& from, std::string& text) {
    if (!from.is_bytes()) {
        return false;
    }
    text.clear();
    for (std::string_view rest = from.bytes; !rest.empty();) {
        const std::size_t length = character_length(rest);
        text += length != 0 ? rest.substr(0, length) : rest[0] == '\n' ? " " : "\xef\xbf\xbd";
        rest.remove_prefix(std::max<std::size_t>(length, 1));
    }
    return true;
}

}  // namespace qel::vexa::protocol
