// Text in columns, as the terminal shows it. Widths are in characters.
#pragma once

#include <cstddef>
#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

namespace qel::vexa::report {

inline constexpr std::size_t sentence_width = 100;  // of sentences in a pipe

std::size_t display_width(std::string_view text);
std::string padded(const std::string& text, std::size_t width);
std::string right_aligned(const std::string& text, std::size_t width);

// The text in lines of at most so many columns, broken between words where that is possible.
std::vector<std::string> wrapped(std::string_view text, std::size_t width);

// Four digits of a number that its unit's prefix has brought near to one, all whole digits of a larger one,
// and one digit and an exponent where six characters have no room for it: they leave a blank in a column.
std::string column_number(double value);

void write_line(std::ostream& out, std::string line);

// A paragraph; its lines begin with so much from the second on.
void write_wrapped(std::ostream& out, const std::string& text, std::size_t width, const std::string& indent);

}  // namespace qel::vexa::report
