// Permissions: what texts allow, and what is said of bad ones.
#include <gtest/gtest.h>

#include <cerrno>
#include <map>

#include "cdbg/src/vexa_cdbg_control.h"
#include "cdbg/src/vexa_cdbg_env.h"
#include "tests/cdbg/settings.h"
#include "tests/support/failing_calls.h"

namespace {

using namespace test_support;

// Starts with these settings, and compares the result, the words of the modules and the message. All modules
// but those that are named have the word `all`.
void start(const std::string& variable, std::uint32_t all,
           const std::map<std::uint32_t, std::uint32_t>& words = {}, const strings& messages = {},
           std::uint32_t result = CDBGP_SUCCESS, const std::string& file = "") {
    SCOPED_TRACE(variable + file);
    const settings set({variable}, file);
    const int failing_malloc = std::exchange(calls.failing_malloc, 0);
    const int failing_mutex_init = std::exchange(calls.failing_mutex_init, 0);
    EXPECT_EQ(cdbgp_env_init(), CDBGP_SUCCESS);
    const int mutexes = calls.mutexes;
    calls.failing_malloc = failing_malloc;
    calls.failing_mutex_init = failing_mutex_init;
    EXPECT_EQ(cdbgp_control_init(), result);
    if (result == CDBGP_SUCCESS) {
        cdbgp_control_term();
    }
    EXPECT_EQ(calls.mutexes, mutexes);
    cdbgp_env_term();
    EXPECT_EQ(take_messages("cdbg/src/vexa_cdbg_control"), messages);
    for (std::uint32_t module = 0; module < CDBGP_MODULE_COUNT; ++module) {
        EXPECT_EQ(cdbgp_permissions[module], words.contains(module) ? words.at(module) : all) << module;
    }
}

TEST(permissions, a_text_allows_up_to_its_first_bad_element) {
    const struct {
        std::string text;
        std::uint32_t all;
        std::map<std::uint32_t, std::uint32_t> words = {};
        std::string message = {};  // in front of the text
    } cases[] = {
        {"", 0},
        {"CDBG_INFO,CDBG_WARN", 0, {{3, 3}}},
        {"OSU_F,STDLIB_ALL,BASE_W,CUTILS_E,UNKNOWN_I", 0, {{20, 8}, {21, 7}, {1, 2}, {14, 4}, {0, 1}}},
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
        const strings messages(c.message.empty() ? 0 : 1, c.message + " permissions '" + c.text + "'");
        start("VEXA_CDBG_PERMISSIONS=" + c.text, c.all, c.words, messages);
    }
}

TEST(permissions, come_from_a_setting_of_any_length_or_are_the_default) {
    start("NONE=1", 6);
    start("NONE=1", 8, {}, {}, 0, program_invocation_short_name + std::string(":CDBG_PERMISSIONS=ALL_FAIL"));
    for (const std::size_t length : {127U, 128U, 1023U}) {
        start("VEXA_CDBG_PERMISSIONS=" + std::string(length - 8, ' ') + "ALL_FAIL", 8);
    }
    calls.failing_mutex_init = 1;
    start("NONE=1", 8, {}, {"Initialization of spin lock failed (1)"}, CDBGP_FAILURE);  // words as they were
    calls.failing_malloc = 1;
    start("VEXA_CDBG_PERMISSIONS=" + std::string(128, ' '), 0, {},
          {"Failed to allocate 129 bytes for environment variable value"}, CDBGP_OUT_OF_MEMORY);
}

}  // namespace
