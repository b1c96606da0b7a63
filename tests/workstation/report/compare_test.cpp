// Two recordings compared: what changed is found, and chance is not taken for change.

#include "workstation/report/compare.h"

#include <gtest/gtest.h>

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "hwc/hwc_names.h"
#include "hwc/reported_value.h"
#include "tests/hwc/hand_made_gpu.h"
#include "virtual_gpu/workload.h"
#include "workstation/report/limits.h"

namespace {

using namespace qel::vexa::report;  // NOLINT(google-build-using-namespace)
namespace hwc = qel::vexa::hwc;
namespace virtual_gpu = qel::vexa::virtual_gpu;

constexpr std::uint64_t period = 20'000'000;

// What a recording of the virtual GPU's scene sums up to, from some second of it on. The bytes that it reads
// from external memory are so many per cent of what they are.
std::unique_ptr<trace_summary> recording(double from_second, std::uint64_t samples,
                                         std::uint32_t read_percent = 100) {
    const virtual_gpu::gpu_description gpu;
    virtual_gpu::workload_source source(gpu);
    std::error_code ec;
    const hwc::counter_table& table =
        hwc::product_tables.at(qel::vexa::hardware::detail::to_product(gpu.product_id, ec));
    hwc::profiler profiler(hand_made_gpu(table, static_cast<std::uint32_t>(gpu.core_mask()), gpu.l2_slices),
                           5);
    std::vector<const hwc::vexa_counter_descriptor*> rows;
    std::vector<counter_description> counters;
    std::size_t read_beats = 0;
    for (const hwc::vexa_counter_descriptor& row : table) {
        rows.push_back(&row);
        counter_description& counter = counters.emplace_back();
        counter.id = row.id;
        counter.name = row.name;
        counter.numerator_units = {row.numerator_units};
        counter.denominator_units = {row.denominator_units};
        if (counter.name == "Output external read beats") {
            read_beats = row.id % hwc::counters_per_block;
        }
    }
    auto summary = std::make_unique<trace_summary>(256, selection{});
    summary->on_counters(1, counters);
    std::vector<std::uint32_t> words(virtual_gpu::sample_layout(gpu).word_count());
    counter_sample sample{0, std::vector<counter_value>(rows.size())};
    const auto first = static_cast<std::uint64_t>(from_second * 1e9);
    for (std::uint64_t i = 0; i < samples; ++i) {
        const std::uint64_t begin = first + i * period;
        profiler.gpu_cycles = source.take({.number = i, .begin = begin, .end = begin + period}, words);
        for (std::size_t slice = 0; slice < gpu.l2_slices; ++slice) {
            std::uint32_t& word = words[(2 + slice) * hwc::counters_per_block + read_beats];
            word = static_cast<std::uint32_t>(std::uint64_t{word} * read_percent / 100);
        }
        sample.timestamp = begin + period;
        for (std::size_t at = 0; at < rows.size(); ++at) {
            sample.values[at] = {rows[at]->id, hwc::reported_value(profiler, words.data(), *rows[at])};
        }
        summary->on_sample(1, sample);
    }
    return summary;
}

const sequence_summary& sequence_of(const std::unique_ptr<trace_summary>& summary) {
    return summary->finish().at({1, 0});
}

std::set<std::string> changed_in(const comparison& result) {
    std::set<std::string> names;
    for (const compared_counter& counter : result.counters) {
        if (counter.is_changed) {
            names.insert(counter.name);
        }
    }
    return names;
}

// The scene swings over ten seconds, so that half a swing is another picture than the other half, and
// neighbouring samples are all but the same.
TEST(Compare, SeldomFindsChangesWhereThereAreNone) {
    std::size_t pairs = 0;
    std::size_t found = 0;
    for (const std::uint64_t seconds : {5U, 12U}) {
        for (unsigned i = 0; i < 6; ++i) {
            const auto before = recording(100 + 7.31 * i, seconds * 50);
            const auto after = recording(1000 + 11.7 * i, seconds * 50);
            ++pairs;
            found += changed_in(compare({&sequence_of(before)}, {&sequence_of(after)})).empty() ? 0U : 1U;
        }
    }
    // Of 12 comparisons of which each calls anything changed with a probability of 5 %, more than two do so
    // in 2 % of all cases.
    EXPECT_EQ(pairs, 12U);
    EXPECT_LE(found, 2U);
}

TEST(Compare, FindsTheOneThingThatChanged) {
    const auto before = recording(3, 3000);
    const auto after = recording(171, 3000, 120);
    const auto second_after = recording(310, 2500, 120);
    const comparison result = compare({&sequence_of(before)}, {&sequence_of(after)});
    const std::set<std::string> changed = changed_in(result);
    EXPECT_TRUE(changed.contains("Output external read beats"));
    EXPECT_TRUE(changed.contains("Output external read bytes"));
    EXPECT_FALSE(changed.contains("GPU active cycles"));
    EXPECT_FALSE(changed.contains("Fragment queue utilization"));
    EXPECT_TRUE(result.only_before.empty() && result.only_after.empty());
    const compared_counter* bytes = nullptr;
    for (const compared_counter& counter : result.counters) {
        bytes = counter.name == "Output external read bytes" ? &counter : bytes;
    }
    ASSERT_NE(bytes, nullptr);
    EXPECT_NEAR(bytes->change_percent(), 20, 3);
    EXPECT_LT(*bytes->low, bytes->change());
    EXPECT_GT(*bytes->low, 0);
    EXPECT_EQ(bytes->unit, "byte/second");

    const struct {
        const char* text;
        bool fails;
    } gates[] = {{"External read bytes > +5%", true},   {"external READ bytes > 30 %", false},
                 {"external read bytes < 5%", false},   {"external read bytes < 30%", true},
                 {"external read bytes > 1e15", false}, {"external read bytes > 1", true},
                 {"gpu active cycles > -90%", false}};
    for (const auto& each : gates) {
        const std::optional<gate> limit = gate::parse(each.text);
        ASSERT_TRUE(limit.has_value()) << each.text;
        EXPECT_EQ(limit->fails(*bytes), each.fails) << each.text;
    }
    for (const char* const wrong : {"", "> 5%", "name", "name >", "name > x", "name > 5%%", "name > nan"}) {
        EXPECT_FALSE(gate::parse(wrong).has_value()) << wrong;
    }
    // Several traces of a side, and one that is too short to tell anything.
    const auto third = recording(55, 2500);
    EXPECT_TRUE(changed_in(compare({&sequence_of(before), &sequence_of(third)},
                                   {&sequence_of(after), &sequence_of(second_after)}))
                    .contains("Output external read bytes"));
    const auto shortest = recording(1, 5, 300);
    EXPECT_TRUE(changed_in(compare({&sequence_of(before)}, {&sequence_of(shortest)})).empty());
}

// Values without any scatter leave nothing to chance, and still a difference as small as rounding makes is no
// change.
TEST(Compare, TakesNoRoundingForAChange) {
    const auto steady = [](double value) {
        auto summary = std::make_unique<trace_summary>(256, selection{});
        counter_description counter;
        counter.id = 1;
        counter.name = "Steady";
        summary->on_counters(1, {counter});
        for (std::uint64_t i = 1; i <= 100; ++i) {
            summary->on_sample(1, {i * period, {{1, value}}});
        }
        return summary;
    };
    const auto before = steady(1e6), nearly = steady(1e6 + 90), changed = steady(1e6 + 200);
    EXPECT_TRUE(changed_in(compare({&sequence_of(before)}, {&sequence_of(nearly)})).empty());
    EXPECT_EQ(changed_in(compare({&sequence_of(before)}, {&sequence_of(changed)})).size(), 1U);
}

// Every rule is about counters that some table has, and what it says comes with its numbers.
TEST(Limits, RulesAreAboutTheCatalogue) {
    std::set<std::string> names;
    for (const hwc::counter_table& table : hwc::counter_tables) {
        for (const hwc::vexa_counter_descriptor& row : table) {
            names.insert(row.name);
        }
    }
    for (const limit_rule& rule : limit_rules) {
        EXPECT_TRUE(names.contains(std::string(rule.counter))) << rule.counter;
        EXPECT_TRUE(rule.out_of.empty() || names.contains(std::string(rule.out_of))) << rule.out_of;
    }
    const auto scene = recording(3, 500);
    const std::optional<std::vector<limit>> limits = limits_of(sequence_of(scene));
    ASSERT_TRUE(limits.has_value());
    std::set<std::string_view> topics;
    for (const limit& found : *limits) {
        EXPECT_TRUE(topics.insert(found.rule->topic).second) << found.rule->topic;
        EXPECT_EQ(found.value > found.rule->threshold, found.rule->is_above);
    }
}

}  // namespace
