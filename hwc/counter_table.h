// A counter table: the rows of one layout of the hardware counters, by id.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "hwc/counter_descriptor.h"

namespace qel::vexa::hwc {

// An unordered map from id to row, filled once and then only read, from any thread: a power of two of slots,
// and a hash that gives each id that the tables use a slot of its own.
class counter_table {
public:
    using const_iterator = std::vector<vexa_counter_descriptor>::const_iterator;

    // False, and nothing changed, when a row has this id already or the table is full. Rows taken out of the
    // table before stay valid only when their number was reserved.
    bool insert(vexa_counter_descriptor row) {
        std::uint16_t& slot = slots_[slot_for(row.id)];
        if (slot != 0 || rows_.size() + 1 >= slots_.size()) {
            return false;
        }
        rows_.push_back(std::move(row));
        slot = static_cast<std::uint16_t>(rows_.size());
        return true;
    }

    // Takes the memory for so many rows.
    void reserve(std::size_t row_count) { rows_.reserve(row_count); }

    // The row with this id, or null.
    const vexa_counter_descriptor* find(std::uint32_t id) const {
        const std::uint16_t row = slots_[slot_for(id)];
        return row == 0 ? nullptr : &rows_[row - 1U];
    }

    std::size_t size() const { return rows_.size(); }
    const_iterator begin() const { return rows_.begin(); }
    const_iterator end() const { return rows_.end(); }

private:
    static constexpr std::size_t slot_count = 1024;

    // Where the id stands or, when it is not in the table, a free slot: insert always leaves one.
    std::size_t slot_for(std::uint32_t id) const {
        // Raw ids land in the slots up to 256, the cycle count's on 510, derived ids in those from 512 on.
        std::size_t slot = (id + (id >> 7)) % slot_count;
        while (slots_[slot] != 0 && rows_[slots_[slot] - 1U].id != id) {
            slot = (slot + 1) % slot_count;
        }
        return slot;
    }

    std::vector<vexa_counter_descriptor> rows_;
    std::array<std::uint16_t, slot_count> slots_{};  // one more than the row's index; 0 is free
};

}  // namespace qel::vexa::hwc
