// What the counters of a table are made of, in hardware names. For tools; the library has no use for it.
#pragma once

#include <cstdint>
#include <map>
#include <string>

namespace qel::vexa::hwc {

// The expression of each row of a table, by id. That of a raw counter is its hardware name alone. Tables
// count from 1. Any thread may call this.
std::map<std::uint32_t, std::string> counter_expressions(unsigned table);

}  // namespace qel::vexa::hwc
