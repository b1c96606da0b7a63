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
    std::string block;       // one of block_names()
    std::string unit;        // "percent", "byte/pixel"; empty for a plain count

    bool is_derived() const { return row->evaluator != nullptr; }
};

// "tiler" and its like, in the order of their ids, and last "GPU" for what is of no block.
const std::vector<std::string>& block_names();

// The block of a counter by what a trace tells of it; empty when there is no such counter. A derived counter
// stands with the first counter of its expression, which is what it tells about; what follows is what that is
// measured against.
std::string block_of(std::uint32_t id, const std::string& name);

// Units in words, by their numbers in the tracing protocol. A plain count is the empty text.
std::string unit_text(std::uint32_t numerator, std::uint32_t denominator);

// A product with its counters.
struct gpu {
    hardware::product product;
    unsigned table;                 // which of the counter tables it has, from 1
    std::vector<counter> counters;  // by rising id
};

// Takes a product number, or a GPU id such as 0x9002, of which the bits count that tell products
// apart. Ends the process with exit_usage for any other text, and names what there is.
gpu gpu_argument(const char* text);

// All products by number, and the masked ids of one.
std::vector<gpu> all_gpus();
std::vector<std::uint32_t> gpu_ids(hardware::product product);

// "0x9002"
std::string hexadecimal(std::uint32_t id);

// The counters with one of these names, in the GPU's order; all of its counters when no name is given. A name
// is a counter's display name or its hardware name in any case, its id, or a pattern as the shell has them
// for either name. Any that fits no counter ends the process with exit_failure, and with the names that are
// near.
std::vector<counter> counters_named(const gpu& from, const std::vector<std::string>& names);

}  // namespace qel::vexa::command_line
