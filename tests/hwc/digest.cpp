// Prints a digest of the values of all rows of each table over thousands of samples. Builds for different
// processors and compilers print the same.

#include <bit>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

#include "hwc/hwc_names.h"
#include "hwc/profiler.h"

namespace {

using namespace qel::vexa;  // NOLINT(google-build-using-namespace)

constexpr int samples_per_table = 3000;

// The same numbers everywhere, which the standard's distributions don't promise.
class generator {
public:
    std::uint64_t next() {
        state_ += 0x9e3779b97f4a7c15;
        std::uint64_t value = state_;
        value = (value ^ value >> 30) * 0xbf58476d1ce4e5b9;
        value = (value ^ value >> 27) * 0x94d049bb133111eb;
        return value ^ value >> 31;
    }
    std::uint32_t below(std::uint32_t limit) { return static_cast<std::uint32_t>(next() % limit); }

private:
    std::uint64_t state_ = 1;
};

constexpr std::uint32_t core_masks[] = {0, 1, 0b1011, 0x3ff, 0x80000001, 0xffffffff};

std::uint64_t digest_of(const hwc::counter_table& table) {
    generator random;
    std::uint64_t digest = 0xcbf29ce484222325;
    for (int n = 0; n < samples_per_table; ++n) {
        std::error_code ec;
        hwc::product gpu("/nonexistent", ec);
        gpu.counters = &table;
        gpu.shader_core_mask = core_masks[random.below(6)];
        gpu.shader_core_count = static_cast<std::uint32_t>(std::popcount(gpu.shader_core_mask));
        gpu.l2_slice_count = random.below(9);
        gpu.bus_width_bytes = 8U << random.below(3);
        hwc::profiler profiler(gpu, 5);

        std::vector<std::uint32_t> words(std::size_t{64} * (2 + 8 + 32));
        const std::uint32_t kind = random.below(4);
        for (std::uint32_t& word : words) {
            const std::uint32_t choice = random.below(8);
            word = kind == 0     ? random.below(3)
                   : choice == 0 ? 0
                   : choice == 1 ? 0xffffffff
                                 : static_cast<std::uint32_t>(random.next() >> (kind * 12));
        }
        // Around the number of active cycles, which stands at one of two places, and far from it.
        const std::uint64_t active =
            words[std::strcmp(table.find(4)->name, "GPU active cycles") == 0 ? 4 : 6];
        const std::uint64_t cycles[] = {0, active, active - 1, active + 1, random.next()};
        profiler.gpu_cycles = cycles[random.below(5)];

        for (const hwc::vexa_counter_descriptor& row : table) {
            const double value = profiler.get_value_for_counter(words.data(), row).value();
            digest = (digest ^ std::bit_cast<std::uint64_t>(value)) * 0x100000001b3;
            digest ^= digest >> 29;
        }
    }
    return digest;
}

}  // namespace

int main() {
    for (unsigned table = 1; table <= hwc::table_count; ++table) {
        std::printf("table %u: %016" PRIx64 "\n", table, digest_of(hwc::counter_tables[table - 1]));
    }
}
