// Bytes as text that may stand anywhere in a page.
#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace qel::vexa::report {

std::string base64(std::span<const std::uint8_t> bytes);

}  // namespace qel::vexa::report
