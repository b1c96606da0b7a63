// The number type of all counter arithmetic: a double whose exceptional cases all have an ordinary result.
#pragma once

#include <bit>
#include <cstdint>
#include <limits>

namespace qel::vexa::hwc {

// After each operation the value is neither a NaN, nor an infinity, nor a subnormal number, nor a negative
// zero, and a division by zero gives zero. So an idle GPU yields plain numbers, and no trace ever carries an
// exceptional one.
class saturating_double {
public:
    constexpr saturating_double() = default;

    // Not saturated: no unsigned integer converts to a double that the rule would change.
    constexpr explicit saturating_double(std::uint32_t value) : value_(static_cast<double>(value)) {}
    constexpr explicit saturating_double(std::uint64_t value) : value_(static_cast<double>(value)) {}

    // Any double, made valid.
    static constexpr saturating_double from(double raw) { return saturating_double(raw, saturated_tag{}); }

    // A double that the rule would not change.
    static constexpr saturating_double valid(double value) {
        saturating_double result;
        result.value_ = value;
        return result;
    }

    constexpr double value() const { return value_; }

    friend constexpr saturating_double operator+(saturating_double a, saturating_double b) {
        return from(a.value_ + b.value_);
    }
    friend constexpr saturating_double operator-(saturating_double a, saturating_double b) {
        return from(a.value_ - b.value_);
    }
    friend constexpr saturating_double operator*(saturating_double a, saturating_double b) {
        return from(a.value_ * b.value_);
    }
    // The divisor alone is examined: 0 divided by 0 is 0 like anything else.
    friend constexpr saturating_double operator/(saturating_double a, saturating_double b) {
        return b.value_ == 0.0 ? saturating_double() : from(a.value_ / b.value_);
    }
    friend constexpr saturating_double max(saturating_double a, saturating_double b) {
        return a.value_ > b.value_ ? a : b;
    }
    friend constexpr bool operator==(saturating_double a, saturating_double b) {
        return a.value_ == b.value_;
    }

private:
    struct saturated_tag {};
    constexpr saturating_double(double raw, saturated_tag) : value_(saturate(raw)) {}

    // Nearly every value is a normal number of either sign, such as the difference of two counters, and is
    // kept: its exponent is neither the lowest nor the highest one. So much stands in line at every
    // operation.
    static constexpr double saturate(double raw) {
        constexpr int fraction_bits = 52;
        constexpr std::uint32_t highest = 0x7ff;
        const auto exponent =
            static_cast<std::uint32_t>(std::bit_cast<std::uint64_t>(raw) >> fraction_bits) & highest;
        return exponent - 1 < highest - 1 ? raw : saturate_exception(raw);
    }

    // An infinity and a subnormal come out positive whatever their sign was. That is deliberate: the bounds
    // are the largest and the smallest size that a counter can have.
    [[gnu::noinline]] static constexpr double saturate_exception(double raw) {
        const double magnitude = raw < 0.0 ? -raw : raw;
        if (magnitude > std::numeric_limits<double>::max()) {
            return std::numeric_limits<double>::max();
        }
        if (magnitude > 0.0) {
            return std::numeric_limits<double>::min();
        }
        return 0.0;  // a zero of either sign, or a NaN, which compares false above
    }

    double value_ = 0.0;
};

}  // namespace qel::vexa::hwc
