// Rows of values as an aligned table, as JSON, or as CSV.
#pragma once

#include <cstddef>
#include <initializer_list>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

namespace qel::vexa::command_line {

// One object for each row, all with the same keys in the same order. Values are texts, numbers, truth values,
// and lists of texts or numbers.
using rows = nlohmann::ordered_json;

enum class format { table, json, csv };

// Prints all columns, or as a table those that are named. A table has the column names in its first line and
// fits the terminal, when standard output is one: lines are cut off at its edge. CSV has a line of column
// names too; fields are quoted where they have to be, and lists have blanks between their items.
// Floating-point numbers have 17 significant digits there, and in JSON as many as it takes to read the same
// number back.
void print(const rows& data, format how, std::initializer_list<const char*> table_columns);

// Puts a text on standard output as it is.
void print(const std::string& text);

// The texts in one, with the separator between them.
std::string joined(const std::vector<std::string>& texts, const std::string& separator);

// A field of CSV, quoted if it has to be.
std::string csv_field(const std::string& text);

// The columns of the terminal, or 0 when standard output is none.
std::size_t terminal_width();

// Breaks a paragraph into lines of at most this many characters, words permitting, each with a line end.
std::string wrapped(const std::string& paragraph, std::size_t width);

}  // namespace qel::vexa::command_line
