// Properties of the counter tables that no single row can show.

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <set>
#include <string>

#include "hwc/hwc_names.h"
#include "hwc/measure_unit.h"
#include "hwc/product.h"

namespace {

using namespace qel::vexa;  // NOLINT(google-build-using-namespace)

const hwc::counter_table& table(unsigned number) {
    return hwc::counter_tables[number - 1];
}

TEST(Tables, RawRowsAreWellFormed) {
    for (unsigned number = 1; number <= hwc::table_count; ++number) {
        std::set<std::string> descriptions;
        std::set<std::string> names;
        for (const hwc::vexa_counter_descriptor& row : table(number)) {
            names.insert(row.name);
        }
        for (const hwc::vexa_counter_descriptor& row : table(number)) {
            const std::string description = row.description;
            SCOPED_TRACE(testing::Message()
                         << "table " << number << ", id " << row.id << ": " << description);
            EXPECT_EQ(table(number).find(row.id), &row);
            EXPECT_TRUE(descriptions.insert(description).second);
            EXPECT_LT(row.numerator_units, 128U);
            if (row.id > hwc::gpu_cycles_id) {
                continue;
            }
            EXPECT_EQ(row.evaluator, nullptr);
            EXPECT_TRUE(row.dependencies.empty());
            EXPECT_EQ(row.denominator_units, hwc::unit_none);
            EXPECT_EQ(description.rfind("This counter increments ", 0), 0U);
            if (row.id == hwc::gpu_cycles_id) {
                continue;
            }
            // Behind the text stand the hardware name and the block's sentences, and nothing else.
            const char* const ends[] = {
                ".", ".",
                ". The value reported is the summed value across all L2 cache slices. The number of L2 cache "
                "slices is reported by the \"L2 cache slice count\" counter.",
                ". The value reported is the average value across all shader cores. The number of shader "
                "cores "
                "is reported by the \"Shader core count\" counter."};
            const std::size_t name_at = description.find(" Hardware name: ");
            ASSERT_NE(name_at, std::string::npos);
            const std::size_t name_end = description.find_first_not_of(
                "ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_", name_at + std::strlen(" Hardware name: "));
            ASSERT_NE(name_end, std::string::npos);
            EXPECT_EQ(description.substr(name_end), ends[row.id / 64]);
            EXPECT_EQ(description[name_at - 1], '.');
            EXPECT_EQ(description.find("  "), std::string::npos);
            // A counter that a text names is one of the same table. The block's own sentences name derived
            // counters.
            for (std::size_t at = description.find('"'); at < name_at; at = description.find('"', at + 1)) {
                const std::size_t begin = at + 1;
                at = description.find('"', begin);
                EXPECT_EQ(names.count(description.substr(begin, at - begin)), 1U);
            }
        }
        EXPECT_EQ(table(number).find(3), nullptr);
        EXPECT_EQ(table(number).find(256), nullptr);
        ASSERT_NE(table(number).find(hwc::gpu_cycles_id), nullptr);
        EXPECT_STREQ(table(number).find(hwc::gpu_cycles_id)->name, "GPU cycles");
    }
}

// Two tables and the ids of the rows in which they are allowed to differ; they must differ in these.
TEST(Tables, PairsThatAreAlmostEqual) {
    const auto text_of = [](const hwc::vexa_counter_descriptor* row) {
        return row == nullptr
                   ? ""
                   : row->name + std::string(row->description) + std::to_string(row->numerator_units) +
                         (row->select_by_default ? "+" : "-");
    };
    const struct {
        unsigned a, b;
        std::set<std::uint32_t> different;
    } cases[] = {{1, 2, {253, 255}}, {3, 6, {253, 255}}, {4, 5, {210}}};
    for (const auto& c : cases) {
        std::set<std::uint32_t> different;
        for (const hwc::vexa_counter_descriptor& row : table(c.a)) {
            if (row.id <= hwc::gpu_cycles_id && text_of(&row) != text_of(table(c.b).find(row.id))) {
                different.insert(row.id);
            }
        }
        EXPECT_EQ(table(c.a).size(), table(c.b).size());
        EXPECT_EQ(different, c.different) << c.a << " and " << c.b;
    }
}

TEST(Tables, SentencesThatDifferBetweenTables) {
    const unsigned warp_sizes[] = {4, 4, 8, 4, 4, 8, 16, 16, 16};
    for (unsigned number = 1; number <= hwc::table_count; ++number) {
        const std::string note =
            "Note that the warp size varies between Vexa devices, this GPU has a warp size of " +
            std::to_string(warp_sizes[number - 1]) + " threads.";
        for (const std::uint32_t id : {201U, 216U}) {
            EXPECT_NE(std::strstr(table(number).find(id)->description, note.c_str()), nullptr) << number;
        }
        const char* const tiles = table(number).find(210)->description;
        EXPECT_NE(std::strstr(tiles, number == 9 ? "32x32" : "16x16"), nullptr) << tiles;
        EXPECT_EQ(std::strstr(tiles, "128 bits per pixel") != nullptr, number == 4) << tiles;
        EXPECT_EQ(std::strstr(tiles, "256 bits per pixel") != nullptr, number == 5) << tiles;
        EXPECT_NE(std::strstr(table(number).find(number == 9 ? 10 : 7)->description,
                              "which may not be the Vexa device driver"),
                  nullptr);
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
    EXPECT_EQ(rows.find(0), nullptr);
    std::size_t held = 0;
    for (std::uint32_t id = 7; rows.insert(row(id)); id += 1024) {  // many ids of nearly the same hash
        EXPECT_FALSE(rows.insert(row(id)));
        ++held;
    }
    EXPECT_GT(held, 321U);
    EXPECT_EQ(rows.size(), held);
    for (std::uint32_t i = 0; i < held; ++i) {
        ASSERT_NE(rows.find(7 + i * 1024), nullptr);
        EXPECT_EQ(rows.find(7 + i * 1024)->id, 7 + i * 1024);
        EXPECT_EQ(rows.find(8 + i * 1024), nullptr);
    }
}

}  // namespace
