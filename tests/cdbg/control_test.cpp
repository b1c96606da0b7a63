// Permissions: what texts allow, and what is said of bad ones.
#include <gtest/gtest.h>

#include <cerrno>
#include <tuple>

#include "cdbg/src/vexa_cdbg_control.h"
#include "cdbg/src/vexa_cdbg_env.h"
#include "tests/cdbg/calls.h"
#include "tests/cdbg/settings.h"

namespace {

using namespace test_support;
using words = std::vector<std::uint32_t>;
using started = std::tuple<std::uint32_t, words, strings>;

// The result, the permissions and the messages of a start.
started start(const std::string& variable, const std::string& file = "", int failing_malloc = 0,
              int failing_mutex = 0) {
    const settings set({variable}, file);
    EXPECT_EQ(cdbgp_env_init(), 0U);
    const int mutexes = calls.mutexes;
    calls.failing_malloc = failing_malloc;
    calls.failing_mutex_init = failing_mutex;
    const std::uint32_t result = cdbgp_control_init();
    if (result == CDBGP_SUCCESS) {
        cdbgp_control_term();
    }
    EXPECT_EQ(calls.mutexes, mutexes);
    cdbgp_env_term();
    const words permissions(std::begin(cdbgp_permissions), std::end(cdbgp_permissions));
    return {result, permissions, take_messages("cdbg/src/vexa_cdbg_control")};
}

TEST(permissions, a_text_allows_up_to_its_first_bad_element) {
    struct {
        std::string text;
        std::uint32_t all;  // in the words of all modules but these
        std::vector<std::pair<std::uint32_t, std::uint32_t>> words = {};  // module and word
        std::string message = {};                                         // in front of the text
    } const cases[] = {
        {"", 0},
        {"CDBG_INFO,CDBG_WARN", 0, {{3, 3}}},
        {"OSU_F,STDLIB_ALL,BASE_W,CUTILS_E", 0, {{20, 8}, {21, 7}, {1, 2}, {14, 4}}},
        {"ALL_ALL", 7},
        {"ALL_FAIL,CD_I", 8, {{3, 9}}},
        {"ALLOC_WARN", 2},
        {"_WARN,ALL_", 1, {{0, 3}}},
        {"ALL_WARN , ALL_ERROR", 6},
        {"  CDBG_INFO junk_, OSU_ ERROR", 0, {{3, 1}, {20, 1}}},
        {"ALL_WARN,", 2, {}, "Trailing ',' at end of"},
        {"  ", 0, {}, "Trailing ',' at end of"},
        {"CDBG", 0, {}, "Missing '_' in"},
        {"OSU_E,CDBG x,", 0, {{20, 4}}, "Missing '_' in"},
        {"CDBG,ALL_WARN", 0, {}, "Unexpected ',' in"},
        {"OSU_E,,OSU_I", 0, {{20, 4}}, "Unexpected ',' in"},
        {"CDBG_WARNING", 0, {}, "Unrecognized feature name 'WARNING' in"},
        {"X_warn,ALL_ALL", 0, {}, "Unrecognized feature name 'warn' in"},
        {"OSU_E,OSU_A_B,OSU_I", 0, {{20, 4}}, "Unrecognized feature name 'A_B' in"},
        {"OSUX_WARN,ALL_ALL", 0, {}, "Unrecognized module ID 'OSUX' in"},
        {"AL_I", 0, {}, "Unrecognized module ID 'AL' in"},
        // A blank in front of the underscore leaves the feature word without an end.
        {"ALL _WARN", 2},
        {"CDBG _WARN", 0, {}, "Unrecognized module ID 'CDBG ' in"},
        {"ALL _WARN,OSU_E", 0, {}, "Unrecognized feature name 'WARN,OSU_E' in"},
    };
    for (const auto& c : cases) {
        words expected(CDBGP_MODULE_COUNT, c.all);
        for (const auto& [module, word] : c.words) {
            expected[module] = word;
        }
        strings messages;
        if (!c.message.empty()) {
            messages.push_back(c.message + " permissions '" + c.text + "'");
        }
        EXPECT_EQ(start("VEXA_CDBG_PERMISSIONS=" + c.text), started(0, expected, messages)) << c.text;
    }
}

TEST(permissions, come_from_a_setting_of_any_length_or_are_the_default) {
    const std::string name = program_invocation_short_name;
    const words fail(CDBGP_MODULE_COUNT, 8);
    EXPECT_EQ(start("NONE=1"), started(0, words(CDBGP_MODULE_COUNT, 6), {}));
    EXPECT_EQ(start("NONE=1", name + ":CDBG_PERMISSIONS=ALL_FAIL"), started(0, fail, {}));
    for (const std::size_t length : {127U, 128U, 1023U}) {
        const std::string text = std::string(length - 8, ' ') + "ALL_FAIL";
        EXPECT_EQ(start("VEXA_CDBG_PERMISSIONS=" + text), started(0, fail, {}));
    }
    const words none(CDBGP_MODULE_COUNT, 0);
    const std::string held = "VEXA_CDBG_PERMISSIONS=" + std::string(128, ' ');
    EXPECT_EQ(start(held, "", 1),
              started(2, none, {"Failed to allocate 129 bytes for environment variable value"}));
    EXPECT_EQ(std::get<strings>(start(held, "", 0, 1)), strings{"Initialization of spin lock failed (1)"});
}

TEST(permissions, modules_that_report_have_their_words) {
    for (const auto& [module, word] :
         {std::pair(0U, "UNKNOWN"), {1, "BASE"}, {3, "CDBG"}, {14, "CUTILS"}, {20, "OSU"}, {21, "STDLIB"}}) {
        EXPECT_STREQ(cdbgp_module_to_str(module), word);
    }
}

}  // namespace
