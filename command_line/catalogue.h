// The counters of a GPU as people name, find and read them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "hwc/product.h"

namespace qel::vexa::command_line {

struct counter {
    const hwc::vexa_counter_descriptor* row;
    std::string expression;  // over hardware names; of a raw counter the hardware name
    std::string block;       // "tiler" and its like; empty for what comes from no block
    std::string unit;        // "percent", "byte/pixel"; empty for a plain count

    bool is_derived() const { return row->evaluator != nullptr; }
};

// The words that counter::block can hold.
const std::vector<std::string>& block_names();

// Units in words, by their numbers in the tracing protocol. A plain count is the empty text.
std::string unit_text(std::uint32_t numerator, std::uint32_t denominator);

// A product with its counters.
struct gpu {
    hardware::product product;
    unsigned table;                 // which of the counter tables it has, from 1
    std::vector<counter> counters;  // by rising id
};

// Takes a product number from 0 to 13, or a GPU id such as 0x9002, of which the bits count that tell products
// apart. Ends the process with exit_usage for any other text, and names what there is.
gpu gpu_argument(const char* text);

// All products by number, and the masked ids of one.
std::vector<gpu> all_gpus();
std::vector<std::uint32_t> gpu_ids(hardware::product product);

// "0x9002"
std::string hexadecimal(std::uint32_t id);

// The counters with one of these names, in the GPU's order; all of its counters when no name is given. A name
// is a counter's display name or its hardware name in any case, its id, or a pattern as the shell has them
// for either name. Any that fits no counter ends the process with exit_failure, and with the nearest names.
std::vector<counter> counters_named(const gpu& from, const std::vector<std::string>& names);

}  // namespace qel::vexa::command_line
