// The numbers that stand for a counter in the summary, in the form that the user has asked for.
#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>

#include "workstation/report/summary.h"

namespace qel::vexa::report {

// How amounts are shown. What is no amount has one form.
enum class amount_form { per_sample, per_second, total };

// "sample", "second", "total".
inline constexpr std::array<std::string_view, 3> amount_form_names{"sample", "second", "total"};

struct counter_figures {
    double value;  // over the whole time: an amount in the wanted form, or what the counter comes to
    // Of the samples, in the unit of the value; an amount's total has them per sample.
    double least, p50, p95, p99, most;
};

// Nothing when there are no values, or when an amount per second is asked for and there is one sample only.
std::optional<counter_figures> figures_of(const sequence_summary& summary, const counter_series& series,
                                          amount_form form);

// The unit in words: "percent", and of an amount that is shown per second "byte/second".
std::string unit_in_words(const counter_description& counter, bool is_per_second);
// The unit short, and with a prefix that suits the value: "GB/s", "%". Divided by scale, the value fits it.
struct short_unit {
    std::string text;
    double scale;
};
short_unit short_unit_of(const std::string& unit_in_words, counter_kind kind, double value);

// Whether a counter is shown without being asked for: all are, unless the trace holds the whole default
// selection of its GPU, or very many counters, and more beside it.
bool shows_selection_only(const sequence_summary& summary);

}  // namespace qel::vexa::report
