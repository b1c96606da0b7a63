// Tests of the list with its links in the caller's records, and of counted text.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <random>
#include <string>
#include <vector>

#include "cutils/dlist/vexa_cutils_dlist.h"
#include "cutils/string/vexa_cutils_string.h"

namespace {

// Random operations, with both directions of the list compared with a vector after each.
TEST(Dlist, KeepsItsOrderInBothDirections) {
    std::mt19937 random(7);
    std::array<cutilsp_dlist_item, 6> items{};
    cutilsp_dlist list{};
    std::vector<cutilsp_dlist_item*> model;
    for (int round = 0; round < 1000; ++round) {
        cutilsp_dlist_item* const item = &items[random() % items.size()];
        const auto at = std::find(model.begin(), model.end(), item);
        if (at == model.end()) {
            *item = {item, item};  // what an item holds before it is put in does not matter
            const bool back = random() % 2 == 0;
            (back ? cutilsp_dlist_push_back : cutilsp_dlist_push_front)(&list, item);
            model.insert(back ? model.end() : model.begin(), item);
        } else {
            cutilsp_dlist_item* const next = at + 1 == model.end() ? nullptr : *(at + 1);
            cutilsp_dlist_item* const previous = at == model.begin() ? nullptr : *(at - 1);
            const auto kind = random() % 3;
            if (kind == 0) {
                cutilsp_dlist_remove_item(&list, item);
            } else if (kind == 1) {
                ASSERT_EQ(cutilsp_dlist_remove_and_return_next(&list, item), next);
            } else {
                ASSERT_EQ(cutilsp_dlist_remove_and_return_prev(&list, item), previous);
            }
            model.erase(at);
            ASSERT_TRUE(item->next == nullptr && item->previous == nullptr);
        }
        const cutilsp_dlist_item* previous = nullptr;
        const cutilsp_dlist_item* current = list.first;
        for (const cutilsp_dlist_item* expected : model) {
            ASSERT_TRUE(current == expected && current->previous == previous);
            previous = current;
            current = current->next;
        }
        ASSERT_TRUE(current == nullptr && list.last == previous);
    }
}

TEST(String, MeasuresTextsOfOneTo1024Bytes) {
    for (const std::size_t length : {0U, 1U, 1024U, 1025U}) {
        // The longest text has no terminator: no byte behind the bound may be read.
        std::vector<char> text(std::min<std::size_t>(length + 1, 1025));
        std::fill_n(text.begin(), length, 'x');
        const bool good = length == 1 || length == 1024;
        cutils_string string = {"old", 3};
        EXPECT_EQ(cutils_string_from_cstring_nocopy(text.data(), &string), good ? 0U : 3U) << length;
        EXPECT_TRUE(string.text == (good ? text.data() : nullptr) && string.length == (good ? length : 0));
    }
}

TEST(String, OrdersByBytesAndThenByLength) {
    const std::string sorted[] = {"", {"\0", 1}, "a", "ab", "b", "b\x7f", "b\x80"};
    for (const std::string& a : sorted) {
        for (const std::string& b : sorted) {
            const auto order =
                cutils_string_cmp(a.empty() ? nullptr : a.data(), static_cast<unsigned>(a.size()), b.data(),
                                  static_cast<unsigned>(b.size()));
            EXPECT_TRUE(&a < &b ? order < 0 : &a > &b ? order > 0 : order == 0) << a << " against " << b;
        }
    }
}

}  // namespace
