// What formats values is inline in fmt's larger header. It compiles here, once: the other files see
// declarations alone.
#include <fmt/format.h>

namespace {

// Only what is used becomes part of an object.
[[gnu::used]] constexpr std::string (*format_values)(fmt::string_view, fmt::format_args) = &fmt::vformat;

}  // namespace
