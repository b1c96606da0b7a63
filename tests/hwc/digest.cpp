// Prints a digest of the values of all rows of each table over thousands of samples. Builds for different
// processors and compilers print the same.

#include <bit>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <random>
#include <vector>

#include "hwc/hwc_names.h"
#include "hwc/profiler.h"
#include "tests/hwc/hand_made_gpu.h"

namespace {

using namespace qel::vexa;  // NOLINT(google-build-using-namespace)

constexpr int samples_per_table = 3000;

constexpr std::uint32_t core_masks[] = {0, 1, 0b1011, 0x3ff, 0x80000001, 0xffffffff};

std::uint64_t digest_of(const hwc::counter_table& table) {
    // The generator is the same everywhere; the standard's distributions are not.
    std::mt19937_64 random;
    const auto below = [&random](std::uint32_t limit) {
        return static_cast<std::uint32_t>(random() % limit);
    };
    std::uint64_t digest = 0xcbf29ce484222325;
    for (int n = 0; n < samples_per_table; ++n) {
        const std::uint32_t core_mask = core_masks[below(6)];
        const std::uint32_t l2_slices = below(9);
        hwc::profiler profiler(hand_made_gpu(table, core_mask, l2_slices, 8U << below(3)), 5);

        std::vector<std::uint32_t> words(std::size_t{64} * (2 + 8 + 32));
        const std::uint32_t kind = below(4);
        for (std::uint32_t& word : words) {
            const std::uint32_t choice = below(8);
            word = kind == 0     ? below(3)
                   : choice == 0 ? 0
                   : choice == 1 ? 0xffffffff
                                 : static_cast<std::uint32_t>(random() >> (kind * 12));
        }
        // Around the number of active cycles, which stands at one of two places, and far from it.
        const std::uint64_t active =
            words[std::strcmp(table.find(4)->name, "GPU active cycles") == 0 ? 4 : 6];
        const std::uint64_t cycles[] = {0, active, active - 1, active + 1, random()};
        profiler.gpu_cycles = cycles[below(5)];

        const hwc::sample_in_hand in_hand(profiler, words.data());
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
