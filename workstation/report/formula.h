// What a counter's values mean over a span of time, and how to put them together: sums where events are
// counted, the counter's own expression over sums where it is a ratio.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "workstation/report/trace_file.h"

namespace qel::vexa::report {

enum class counter_kind {
    amount,     // events or bytes of a sample: they add up
    rate,       // an amount in a unit of time already
    momentary,  // what was so at the time, such as a temperature
    ratio,      // of amounts: neither adds up nor can its mean be taken
    constant,   // a number of the GPU's build
};

// "amount" and its like.
std::string_view kind_name(counter_kind kind);

// A counter's expression, as steps over a stack.
class formula {
public:
    enum class action { number, counter, add, subtract, multiply, divide, maximum };
    struct step {
        action what;
        double number = 0;
        std::uint32_t id = 0;  // of a counter
    };
    // Gives a counter's sum, or nothing when it is not known.
    using source = std::function<std::optional<double>(std::uint32_t id)>;

    formula() = default;
    explicit formula(std::vector<step> steps) : steps_(std::move(steps)) {}

    bool empty() const { return steps_.empty(); }
    const std::vector<step>& steps() const { return steps_; }

    // With the arithmetic of the library's evaluators, in which a division by zero gives zero. Nothing when a
    // counter is not known.
    std::optional<double> evaluate(const source& sum_of) const;

    // What the outermost division divides by; empty when there is none.
    formula divisor() const;

    // The power of a span's length that the value grows with: 1 of an amount, 0 of a ratio.
    int degree() const;

    bool has_counters() const;

    friend bool operator==(const formula& left, const formula& right);

private:
    std::vector<step> steps_;
};

// What is known of a GPU whose counters the catalogue has.
struct known_counters {
    std::vector<unsigned> tables;  // in which all counters of the trace have their names
    // Of the derived counters; the GPU's own numbers stand as the counters that report them. Those that are
    // not the same in all of the tables are left out.
    std::map<std::uint32_t, formula> formulas;
    std::map<std::uint32_t, counter_kind> kinds;  // of all derived counters
    std::map<std::string, std::uint32_t> ids;     // by hardware name
};

// Recognises a GPU by its counters' ids and names. Nothing when it is none of the catalogue's.
std::optional<known_counters> recognise(const std::vector<counter_description>& counters);

// The kind by what the catalogue says, or by the unit. The counter must be one of those recognised.
counter_kind kind_of(const counter_description& counter, const std::optional<known_counters>& known);

}  // namespace qel::vexa::report
