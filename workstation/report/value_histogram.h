// The distribution of a counter's values, in memory that does not grow with their number.
#pragma once

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace qel::vexa::report {

// Counts values by their exponent and the first bits of their fraction. A percentile is the lower bound of
// the bucket in which it lies, nearest to zero: at most 1/256 of the value, which is 0.4 %, too near to zero,
// and exact for whole numbers up to 512. Sizes outside of 2^-40 to 2^80 count as the nearest of the two, and
// what is smaller as 0. So a counter takes 120 KiB at the very most, and ten orders of magnitude take 34.
class value_histogram {
public:
    static constexpr double largest_error = 1.0 / 256;  // as a part of the value

    void add(double value) {
        const double size = std::fabs(value);
        ++count_;
        if (size < least_size) {
            ++zeros_;
        } else {
            (value < 0 ? below_ : above_).add(std::min(size, most_size));
        }
    }

    std::uint64_t count() const { return count_; }

    // The smallest value that the share, from 0 to 1, of all values does not exceed. There must be values.
    double percentile(double share) const {
        const auto rank = std::clamp<std::uint64_t>(
            static_cast<std::uint64_t>(std::ceil(share * static_cast<double>(count_))), 1, count_);
        const std::uint64_t negative = below_.total();
        if (rank <= negative) {
            return -below_.at_rank(negative - rank + 1);
        }
        return rank <= negative + zeros_ ? 0 : above_.at_rank(rank - negative - zeros_);
    }

private:
    static constexpr double least_size = 0x1p-40;
    static constexpr double most_size = 0x1p80;
    static constexpr int dropped_bits = 52 - 8;

    // Of sizes above zero. Holds the buckets between the smallest and the largest size that came.
    class half {
    public:
        void add(double size) {
            const auto key = static_cast<std::size_t>(std::bit_cast<std::uint64_t>(size) >> dropped_bits);
            if (buckets_.empty()) {
                first_ = key;
            }
            if (key < first_) {
                buckets_.insert(buckets_.begin(), first_ - key, 0);
                first_ = key;
            }
            if (key - first_ >= buckets_.size()) {
                buckets_.resize(key - first_ + 1);
            }
            ++buckets_[key - first_];
        }
        std::uint64_t total() const {
            std::uint64_t result = 0;
            for (const std::uint32_t count : buckets_) {
                result += count;
            }
            return result;
        }
        // The bucket's lower bound. Ranks count from 1, the smallest.
        double at_rank(std::uint64_t rank) const {
            std::size_t i = 0;
            for (; i + 1 < buckets_.size() && rank > buckets_[i]; ++i) {
                rank -= buckets_[i];
            }
            return std::bit_cast<double>(static_cast<std::uint64_t>(first_ + i) << dropped_bits);
        }

    private:
        std::size_t first_ = 0;
        std::vector<std::uint32_t> buckets_;
    };

    half above_;
    half below_;
    std::uint64_t zeros_ = 0;
    std::uint64_t count_ = 0;
};

}  // namespace qel::vexa::report
