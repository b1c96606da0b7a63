// Properties of the counter tables that hold for every row, and what the tables do with ids.

#include <gtest/gtest.h>

#include <array>
#include <regex>
#include <set>
#include <string>

#include "hwc/counter_expressions.h"
#include "hwc/derived_row.h"
#include "hwc/hwc_names.h"
#include "hwc/measure_unit.h"
#include "hwc/operands.h"
#include "hwc/product.h"
#include "hwc/raw_row_checks.h"

namespace {

using namespace qel::vexa;  // NOLINT(google-build-using-namespace)

const hwc::counter_table& table(unsigned number) {
    return hwc::counter_tables[number - 1];
}

TEST(Tables, DescriptionsAreWellFormed) {
    const std::string block_sentences[] = {
        "", "",
        " The value reported is the summed value across all L2 cache slices. The number of L2 cache slices "
        "is reported by the \"L2 cache slice count\" counter.",
        " The value reported is the average value across all shader cores. The number of shader cores is "
        "reported by the \"Shader core count\" counter."};
    const std::regex raw_form("This counter increments [^:].*[.]"), quoted("\"([^\"]*)\"");
    const std::regex derived_form(
        "This (expression (defines the|computes the|increments for)|counter defines the|configuration "
        "constant defines the) .*[.]");
    for (unsigned number = 1; number <= hwc::table_count; ++number) {
        const auto expressions = hwc::counter_expressions(number);
        std::set<std::string> descriptions;
        std::set<std::string> names;
        for (const hwc::vexa_counter_descriptor& row : table(number)) {
            names.insert(row.name);
        }
        for (const hwc::vexa_counter_descriptor& row : table(number)) {
            std::string text = row.description;
            SCOPED_TRACE(testing::Message() << "table " << number << ", id " << row.id << ": " << text);
            EXPECT_EQ(table(number).find(row.id), &row);
            EXPECT_TRUE(descriptions.insert(text).second);
            EXPECT_EQ(text.find("  "), std::string::npos);
            if (row.id < hwc::gpu_cycles_id) {
                // Behind the text stand the hardware name and the block's sentences, and nothing else.
                const std::string end =
                    " Hardware name: " + expressions.at(row.id) + "." + block_sentences[row.id / 64];
                ASSERT_TRUE(text.ends_with(end));
                text.resize(text.size() - end.size());
            }
            EXPECT_TRUE(std::regex_match(text, row.evaluator == nullptr ? raw_form : derived_form));
            // A counter that a text names is one of the same table.
            for (std::sregex_iterator name(text.begin(), text.end(), quoted), last; name != last; ++name) {
                EXPECT_TRUE(names.contains((*name)[1])) << (*name)[1];
            }
        }
        EXPECT_STREQ(table(number).find(hwc::gpu_cycles_id)->description,
                     "This counter increments every clock cycle where the GPU is powered.");
    }
}

// Viewers of traces guess from the words whether to divide a counter by time: they take for momentary what
// has a ratio's unit or one of these words. Where the wording is ours, ratios and constants must be taken for
// that, and counts must not.
TEST(Tables, WordsTellMomentaryValuesFromCounts) {
    // Texts that may not change, of two constants and of a count in two tables.
    const std::set<std::string> misread{"L2 cache slice count", "Shader core count"};
    for (unsigned number = 1; number <= hwc::table_count; ++number) {
        const auto expressions = hwc::counter_expressions(number);
        for (const hwc::vexa_counter_descriptor& row : table(number)) {
            const std::string text = row.description;
            bool taken_for_momentary = row.numerator_units == hwc::unit_percent ||
                                       row.denominator_units != hwc::unit_none ||
                                       std::string(row.name).find(" per ") != std::string::npos;
            for (const char* word : {" per ", " over ", "Current ", "Percentage"}) {
                taken_for_momentary = taken_for_momentary || text.find(word) != std::string::npos;
            }
            const bool is_momentary = expressions.at(row.id).find('/') != std::string::npos ||
                                      (row.evaluator != nullptr && row.dependencies.empty());
            const bool expected_misread =
                misread.contains(row.name) || ((number == 4 || number == 5) && row.id == 210);
            EXPECT_EQ(taken_for_momentary != is_momentary, expected_misread)
                << "table " << number << ", id " << row.id << ": " << text;
        }
    }
}

TEST(Tables, SentencesThatDifferBetweenTables) {
    const unsigned warp_sizes[] = {4, 4, 8, 4, 4, 8, 16, 16, 16};
    for (unsigned number = 1; number <= hwc::table_count; ++number) {
        const auto says = [number](std::uint32_t id, const std::string& words) {
            return std::string(table(number).find(id)->description).find(words) != std::string::npos;
        };
        for (const std::uint32_t id : {201U, 216U}) {
            EXPECT_TRUE(says(id,
                             "Note that the warp size varies between Vexa devices, this GPU has a warp "
                             "size of " +
                                 std::to_string(warp_sizes[number - 1]) + " threads."));
        }
        std::uint32_t fragments_per_pixel = 0;
        for (const hwc::vexa_counter_descriptor& row : table(number)) {
            fragments_per_pixel =
                row.name == std::string("Fragments per pixel") ? row.id : fragments_per_pixel;
        }
        for (const std::uint32_t id : {210U, fragments_per_pixel}) {
            EXPECT_TRUE(says(id, number == 9 ? "32x32 pixels" : "16x16 pixels")) << number;
            EXPECT_EQ(says(id, "128 bits per pixel"), number == 4);
            EXPECT_EQ(says(id, "256 bits per pixel"), number == 5);
        }
        EXPECT_TRUE(says(number == 9 ? 10 : 7, "which may not be the Vexa device driver"));
    }
}

// What the compiler asks of the lists before it takes them.
TEST(Tables, MistakesInTheListsAreSeen) {
    using hwc::tables;
    const auto raw = [](hwc::placement first, hwc::placement second, std::string_view hardware_name) {
        return hwc::raw_row{
            .at = {{first, second}}, .name = "N", .hardware_name = hardware_name, .body = "B."};
    };
    const struct {
        hwc::raw_row other;
        bool sound, unique;
    } cases[] = {{raw({65, tables("3")}, {68, tables("4")}, "B"), false, true},  // words that no counter has
                 {raw({68, tables("3, 5")}, {127, tables("4")}, "B"), true, true},
                 {raw({128, tables("3")}, {}, "B"), false, true},  // the next block's
                 {raw({69, tables("3")}, {70, tables("3")}, "B"), false, true},
                 {raw({68, tables("2, 3")}, {}, "B"), false, true},  // a second time in table 2
                 {raw({69, tables("3")}, {}, "A"), true, true},
                 {raw({69, tables("3")}, {70, tables("1")}, "A"), true, false}};
    const std::array rows{raw({68, tables("1, 2")}, {}, "A")};
    for (const auto& c : cases) {
        const std::array both{rows[0], c.other};
        EXPECT_EQ(hwc::ids_are_sound(both, hwc::block::tiler), c.sound) << &c - cases;
        EXPECT_EQ(hwc::hardware_names_are_unique({both}), c.unique) << &c - cases;
        EXPECT_EQ(hwc::hardware_names_are_unique({rows, std::span(both).subspan(1)}), c.unique);
    }
    const auto derived = [](const char* name, std::string_view body, auto... variants) {
        return hwc::row(name, hwc::unit_none, hwc::selection::off, body, variants...).is_sound();
    };
    constexpr auto value = hwc::operands::L2_SLICES;
    EXPECT_TRUE(derived("N", "B.", hwc::in("1, 3", value), hwc::in("2", value)));
    EXPECT_TRUE(derived("N", "", hwc::in("1", value, "T."), hwc::in("2", value, "T.")));
    EXPECT_FALSE(derived("", "B.", hwc::in("1", value)));
    EXPECT_FALSE(derived("N", "", hwc::in("1", value, "T."), hwc::in("2", value)));
    EXPECT_FALSE(derived("N", "B.", hwc::in("1-3", value), hwc::in("4", value), hwc::in("2", value)));
    for (const char* list : {"0", "1-", "-2", "3-2", "1 2", "1,,2", "", "10", "2-2", "a"}) {
        EXPECT_ANY_THROW(tables(list)) << list;
    }
}

TEST(Tables, ProductsShareTables) {
    const unsigned expected[] = {1, 2, 3, 7, 8, 4, 5, 6, 7, 8, 9, 9, 9, 9};
    ASSERT_EQ(hwc::product_tables.size(), 14U);
    for (const auto& [product, counters] : hwc::product_tables) {
        EXPECT_EQ(&counters.get(), &table(expected[static_cast<std::uint32_t>(product)]));
    }
}

TEST(Tables, InsertRefusesWhatItCannotHold) {
    hwc::counter_table rows;
    const auto row = [](std::uint32_t id) {
        hwc::vexa_counter_descriptor result{};
        result.id = id;
        return result;
    };
    std::size_t held = 0;
    for (std::uint32_t id = 7; rows.insert(row(id)); id += 1024) {  // many ids of nearly the same hash
        EXPECT_FALSE(rows.insert(row(id)));
        ++held;
    }
    EXPECT_EQ(held, 1023U) << "all slots but one";
    EXPECT_EQ(rows.size(), held);
    for (std::uint32_t i = 0; i < held; ++i) {
        ASSERT_NE(rows.find(7 + i * 1024), nullptr);
        EXPECT_EQ(rows.find(7 + i * 1024)->id, 7 + i * 1024);
        EXPECT_EQ(rows.find(8 + i * 1024), nullptr);
    }
}

}  // namespace
