// What the counters of a table are made of, in hardware names. For tools; the library has no use for it.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace qel::vexa::hwc {

// The expression of each row of a table, by id. That of a raw counter is its hardware name alone. Tables
// count from 1. Any thread may call this.
std::map<std::uint32_t, std::string> counter_expressions(unsigned table);

// The same in the order in which they are worked out: operands, which are hardware names, the GPU's own
// numbers and plain numbers, and behind its two operands each of "+", "-", "*", "/" and "max".
std::map<std::uint32_t, std::vector<std::string>> counter_steps(unsigned table);

// The ids behind the operands of a table's steps, where a counter reports them. A number of the GPU is such a
// counter's whole expression; of several the one with the least id.
std::map<std::string, std::uint32_t> ids_of_operands(
    const std::map<std::uint32_t, std::vector<std::string>>& steps);

}  // namespace qel::vexa::hwc
