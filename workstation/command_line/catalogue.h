// The counters of a GPU as people name, find and read them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "hwc/product.h"
#include "workstation/protocol/service_state.h"

namespace qel::vexa::command_line {

struct counter : protocol::counter_description {
    const hwc::vexa_counter_descriptor* row = nullptr;  // null when the catalogue does not have the GPU
    std::string expression;  // over hardware names; of a raw counter the hardware name; empty without a row
    std::string block;       // one of block_names(); empty without a row

    bool is_derived() const { return row != nullptr && row->evaluator != nullptr; }
};

// "tiler" and its like, in the order of their ids, and last "GPU" for what is of no block.
const std::vector<std::string>& block_names();

// The block of a counter by what a trace tells of it; empty when there is no such counter. A derived counter
// stands with the first counter of its expression, which is what it tells about; what follows is what that is
// measured against.
std::string block_of(std::uint32_t id, const std::string& name);

// A GPU with its counters.
struct gpu {
    std::string name;                          // as messages have it: "product 9", "this device"
    std::optional<hardware::product> product;  // of a GPU that was named
    unsigned table = 0;             // which of the counter tables it has, from 1; 0 when it has none of them
    std::string producer;           // of a GPU that is offered: who offers it, when the service tells
    std::vector<counter> counters;  // by rising id
};

// Takes a product number, or a GPU id such as 0x9002, of which the bits count that tell products
// apart. Ends the process with exit_usage for any other text, and names what there is.
gpu gpu_argument(const std::string& text);

// The GPU whose counters are offered, of any make. One that has just the counters of one of the tables has
// their expressions and blocks.
gpu offered_gpu(const protocol::counter_source& offer);

// All products by number, and the masked ids of one.
std::vector<gpu> all_gpus();
std::vector<std::uint32_t> gpu_ids(hardware::product product);

// What the word for a unit or no unit, "none", is true of, in any case: above or below a fraction line too.
bool has_unit(const counter& which, const std::string& unit);

// What a name that fits no counter may also be: nothing, or a word to be found anywhere in a name, in any
// case.
enum class bare_word { refused, searches };

// The counters with one of these names, in the GPU's order; all of its counters when no name is given. A name
// is a counter's display name or its hardware name in any case, its id, or a pattern as the shell has them
// for either name. Any that fits no counter ends the process with exit_failure, and with the names that are
// near.
std::vector<counter> counters_named(const gpu& from, const std::vector<std::string>& names,
                                    bare_word otherwise = bare_word::refused);

// Counters and what their expressions read: other counters, and those that report the GPU's own numbers; in
// the GPU's order. What no expression is known of stands alone.
std::vector<counter> with_operands(const gpu& from, const std::vector<counter>& chosen);

// The names nearest to one that no counter has, as the end of a sentence; empty when none is near.
std::string nearest_names(const gpu& from, const std::string& name);

// Counters for a topic, by name: "overview".
const std::vector<std::string>& preset_names();
// Ends the process with exit_usage for another topic, and with exit_failure when the GPU has none of its
// counters.
std::vector<counter> preset_counters(const gpu& from, const std::string& preset);

}  // namespace qel::vexa::command_line
