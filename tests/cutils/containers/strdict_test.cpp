// Tests of the dictionary: random sessions against a plain list, and the rules that a session can't come to.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "cutils/strdict/vexa_cutils_strdict.h"
#include "fuzz/strdict_session.h"

namespace {

int some_value;

// Operations with equal odds for each kind; kind 7 makes an allocation fail.
std::vector<std::uint8_t> random_operations(unsigned seed, std::size_t count, unsigned kinds) {
    std::mt19937 random(seed);
    std::vector<std::uint8_t> bytes;
    while (bytes.size() < 2 * count) {
        bytes.push_back(static_cast<std::uint8_t>(random() % kinds));
        bytes.push_back(static_cast<std::uint8_t>(random()));
    }
    return bytes;
}

TEST(Strdict, AgreesWithAPlainList) {
    for (unsigned seed = 0; seed < 60; ++seed) {
        const auto operations = random_operations(seed, seed % 3 == 0 ? 24 : 500, 8);
        const char* const broken = strdict_session(0, seed % 4 != 0).run(operations);
        ASSERT_EQ(broken, nullptr) << broken << ", seed " << seed;
    }
}

TEST(Strdict, SurvivesTheFailureOfEachAllocation) {
    const auto operations = random_operations(1, 300, 7);
    unsigned allocations = 1;
    for (unsigned fail_at = 1; fail_at <= allocations; ++fail_at) {
        strdict_session session(fail_at, true);
        const char* const broken = session.run(operations);
        ASSERT_EQ(broken, nullptr) << broken << ", allocation " << fail_at;
        allocations = session.allocations();
    }
    EXPECT_GT(allocations, 100U);
}

// Tables too large to exist here: the decision reads the counts alone.
TEST(Strdict, RefusesATableThatCannotBe) {
    const struct {
        std::uint64_t slots;
        std::uint64_t used;
        bool may_allocate;
    } cases[] = {
        {1ULL << 27, 5ULL << 24, true},          // the size wraps round on 32 bits
        {1ULL << 30, 5ULL << 27, true},          // and the products of the load too
        {1ULL << 31, (1ULL << 31) - 1, false}};  // twice as many can't be counted: the last free slot stays
    for (const auto& [slots, used, may_allocate] : cases) {
        std::uint64_t asked = 0;
        const auto allocate = [](void* context, std::size_t size) -> void* {
            *static_cast<std::uint64_t*>(context) = size;
            return nullptr;
        };
        cutils_strdict dictionary;
        cutils_strdict_init(&dictionary, &asked, allocate, nullptr);
        dictionary.mask = static_cast<std::uint32_t>(slots - 1);
        dictionary.used = static_cast<std::uint32_t>(used);
        EXPECT_EQ(cutils_strdict_insert(&dictionary, "key", &some_value, true), 2U) << slots;
        EXPECT_TRUE(asked == 0 || (may_allocate && asked == slots * 2 * sizeof(cutils_strdict_slot)))
            << asked;
        EXPECT_TRUE(dictionary.mask == slots - 1 && dictionary.used == used);
    }
}

TEST(Strdict, TakesAnyTextAndLetsGoOfWhatIterationHasPassed) {
    cutils_strdict dictionary;
    cutils_strdict_init(&dictionary, nullptr, nullptr, nullptr);  // so small a dictionary takes no memory
    // The linker may give this literal the address of any equal literal in the program.
    const std::string names[] = {"b", "<dummy>", "a"};
    EXPECT_EQ(cutils_strdict_insert(&dictionary, "b", &some_value, false), 0U);
    EXPECT_EQ(cutils_strdict_insert(&dictionary, "<dummy>", &some_value, false), 0U);
    EXPECT_EQ(cutils_strdict_insert(&dictionary, "a", &some_value, false), 0U);
    EXPECT_EQ(cutils_strdict_insert(&dictionary, nullptr, &some_value, false), 3U);
    EXPECT_EQ(cutils_strdict_lookup_key(&dictionary, "a", nullptr), 0U);
    cutils_strdict_iter iterator;
    cutils_strdict_iter_init(&iterator, &dictionary);
    for (const std::string& name : names) {
        cutils_string key;
        cutils_strdict_iter_next(&key, &iterator, nullptr);
        ASSERT_EQ(std::string_view(key.text, key.length), name);
        EXPECT_EQ(cutils_strdict_remove(&dictionary, name.c_str(), nullptr), 0U);
    }
    EXPECT_TRUE(dictionary.count == 0 && dictionary.used == 3 && dictionary.first == CUTILS_STRDICT_NONE &&
                dictionary.last == CUTILS_STRDICT_NONE);
}

}  // namespace
