// The rows that a session reports, sorted out once for all of its samples.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <vector>

#include "hwc/measure_unit.h"
#include "hwc/profiler.h"
#include "hwc/reported_value.h"

namespace qel::vexa::hwc {

// Rows of the profiler's table, which outlives them as the profiler does. Belongs to the profiler's thread.
class reported_rows {
public:
    reported_rows(profiler& context,
                  std::span<const std::reference_wrapper<const vexa_counter_descriptor>> rows)
        : context_(context) {
        for (std::size_t i = 0; i < rows.size(); ++i) {
            const vexa_counter_descriptor& row = rows[i];
            classes_ |= raw_values::class_of(row.id);
            for (const std::uint32_t id : row.dependencies) {
                classes_ |= raw_values::class_of(id);
            }
            if (row.id < raw_values::count && row.numerator_units != unit_percent) {
                raw_.push_back({.index = i, .id = row.id});
            } else {
                others_.push_back({.index = i, .row = &row});
            }
        }
    }

    // Calls take(index, value) for each row: its place among the rows, and what reported_value says of it.
    // The sample must have the profiler's words_read() words.
    template <typename Take>
    void evaluate(const std::uint32_t* sample, Take take) const {
        const sample_in_hand in_hand(context_, sample, classes_);
        // A raw counter that is no percentage is reported as it stands among the sums.
        const raw_values& values = context_.operands_in(sample, classes_);
        for (const raw_row_place& raw : raw_) {
            take(raw.index, values[raw.id].value());
        }
        for (const row_place& other : others_) {
            take(other.index, reported_value(context_, sample, *other.row));
        }
    }

private:
    struct raw_row_place {
        std::size_t index;
        std::uint32_t id;
    };
    struct row_place {
        std::size_t index;
        const vexa_counter_descriptor* row;
    };

    profiler& context_;
    block_classes classes_ = 0;  // what is read of a sample
    std::vector<raw_row_place> raw_;
    std::vector<row_place> others_;
};

}  // namespace qel::vexa::hwc
