// The nine counter tables, one for each layout of the hardware counters.
#pragma once

#include <array>

#include "hwc/counter_table.h"
#include "hwc/table_set.h"

namespace qel::vexa::hwc {

// By table number less one. Built at load time and constant from then on; any thread may read them.
extern const std::array<counter_table, table_count> counter_tables;

}  // namespace qel::vexa::hwc
