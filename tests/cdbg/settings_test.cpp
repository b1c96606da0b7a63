// The environment store, filled from real files and environments, and the permissions that stand in it.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <tuple>
#include <utility>

#include "cdbg/src/vexa_cdbg_control.h"
#include "cdbg/src/vexa_cdbg_env.h"
#include "tests/cdbg/surroundings.h"
#include "tests/support/failing_calls.h"

namespace {

using namespace test_support;
using seen = std::pair<std::string, strings>;

const std::string none = "absent";

std::string text(char character, std::size_t count) {
    return std::string(count, character);
}

// This process's name, as a line of the file may have it.
std::string own_name() {
    return std::filesystem::path(read_file("/proc/self/cmdline").c_str()).filename();
}

std::string value_of(const std::string& name) {
    char value[CDBGP_ENV_TEXT_SIZE];
    return cdbgp_env_get(name.c_str(), value, sizeof value) < 0 ? none : value;
}

// What a function of the store or of the permissions reports with a message.
std::string said(const std::string& function, const std::string& message) {
    return message.empty() ? "" : "6/vexa:" + function + "\n" + message + "\n";
}

// Fills a store, and gives what it said on the way and what the names stand for.
seen fill(const strings& names) {
    const auto descriptors = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    };
    const auto before = descriptors();
    const int mutexes = calls.mutexes;
    EXPECT_EQ(cdbgp_env_init(), 0U);
    strings values;
    for (const std::string& name : names) {
        values.push_back(value_of(name));
    }
    cdbgp_env_term();
    EXPECT_EQ(calls.mutexes, mutexes);
    EXPECT_LE(descriptors(), before);
    return {take_log(), values};
}

TEST(environment_store, each_line_is_stored_skipped_or_rejected_with_its_number) {
    const std::string k = text('k', 1023);
    struct {
        std::string line;
        std::string fault;  // in a parse error, or the setting that could not be made
        std::string name = "none", value = none;
    } const lines[] = {
        {"# a=1", "", "# a"},
        {"#" + text('=', 4000), ""},
        {"", ""},
        {" # a=b", "", " # a", "b"},
        {"FOO=1", "", "VEXA_FOO", "2"},
        {"VEXA_FOO=2", "", "FOO", "2"},
        {"vexa_FOO=3", "", "vexa_FOO", "3"},
        {"=value", "=value"},
        {"EMPTY=", "", "EMPTY", ""},
        {"TEXT=a:b=c", "", "TEXT", "a:b=c"},
        {"RETURN = 1 \r", "", "RETURN ", " 1 \r"},
        {k + "=1", "", k, "1"},
        {k + "k=" + k + "k", "Key too long"},
        {"VALUE=" + k, "", "VALUE", k},
        {"VALUE=" + k + "k", "Value too long"},
        {k + "k:" + k + "k=", "Process name too long"},
        {k + ":" + k + "=" + k, "", k, "1"},
        {"A=" + text('v', 3069), "Value too long"},
        {"A=" + text('v', 3070), "Line too long to be processed"},
        {"LAST=1", "", "LAST", "1"},
        {"last", "Key delimiter not found"},
    };
    for (const char* end : {"", "\n"}) {
        std::string content;
        for (const auto& line : lines) {
            content += (content.empty() ? "" : "\n") + line.line;
        }
        const settings set({}, content + end);
        seen expected;
        strings names;
        for (const auto& [line, fault, name, value] : lines) {
            names.push_back(name);
            expected.second.push_back(value);
            const std::string place =
                "rror on line " + std::to_string(names.size()) + " of " + set.path() + ": ";
            if (fault.find('=') != std::string::npos) {
                expected.first +=
                    said("read_file", "E" + place + "Could not set environment variable " + fault + ".");
            } else if (!fault.empty()) {
                expected.first += said("read_file", "Parse e" + place + fault + ".");
            }
        }
        EXPECT_EQ(fill(names), expected);
    }
}

// Every sequence of three lines, with and without a variable.
TEST(environment_store, environment_beats_process_beats_generic_in_every_order) {
    const std::string name = own_name();
    const strings lines = {"KEY=g1", "VEXA_KEY=g2", name + ":KEY=p1", name + ":VEXA_KEY=p2", "other:KEY=o"};
    for (std::size_t i = 0; i < 125; ++i) {
        std::string content;
        std::string generic = none;
        std::string specific;
        for (const std::string& line : {lines[i / 25], lines[i / 5 % 5], lines[i % 5]}) {
            content += line + "\n";
            if (!line.starts_with("other")) {
                (line.starts_with(name) ? specific : generic) = line.substr(line.size() - 2);
            }
        }
        const settings plain({}, content);
        EXPECT_EQ(fill({"KEY"}), seen({}, {specific.empty() ? generic : specific})) << content;
        // A variable overwrites the value, but a generic line still does not where the process had its own.
        const settings set({"VEXA_KEY=e"}, content);
        ASSERT_EQ(cdbgp_env_init(), 0U);
        EXPECT_EQ(value_of("KEY"), "e");
        const settings later({}, "KEY=later");
        cdbgp_env_read_in_default_environment();
        EXPECT_EQ(value_of("KEY"), specific.empty() ? "later" : "e") << content;
        cdbgp_env_term();
    }
}

TEST(environment_store, a_process_is_named_by_the_last_component_of_its_first_word) {
    const std::pair<std::string, std::string> cases[] = {
        {std::string("/system/bin/app\0/x\0", 19), "app"},
        {"com.app:a:b", "com.app:a:b"},
        {text('n', 600), text('n', 511)},
        {text('d', 508) + "/abc", "ab"},
        {"no file", ""},
        {"bin/", ""},
        {"", ""},
        {"line\nend", none},
    };
    std::string content = "line:KEY=line";
    for (const auto& [bytes, name] : cases) {
        content += "\n" + name + ":KEY=" + name;
    }
    const settings set({}, content);
    for (const auto& [bytes, name] : cases) {
        std::FILE* const file = bytes == "no file" ? nullptr : std::tmpfile();
        if (file != nullptr) {
            std::fwrite(bytes.data(), 1, bytes.size(), file);
            std::rewind(file);
        }
        replaced_files = {{"/proc/" + std::to_string(getpid()) + "/cmdline", file}};
        EXPECT_EQ(fill({"KEY"}), seen({}, {name}));
    }
    replaced_files.clear();
}

TEST(environment_store, a_source_that_cannot_be_read_ends_and_the_next_follows) {
    const temporary_folder folder;
    std::ofstream(folder.file("locked")) << "KEY=1";
    ASSERT_EQ(chmod(folder.file("locked").c_str(), 0), 0);
    // Fails in the third line, which is lost with all that it had: there the pipe has no more.
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_NONBLOCK), 0);
    ASSERT_EQ(write(ends[1], "KEY=1\n\nKEY=2", 12), 12);
    replaced_files["broken"] = fdopen(ends[0], "r");

    const uid_t user = geteuid();
    const uid_t nobody = 65534;  // the superuser reads everything
    for (const auto& [file, value] : {std::pair(folder.file("missing"), none),
                                      {folder.file(""), none},
                                      {folder.file("locked"), none},
                                      {"broken", "1"}}) {
        const bool locked = file.ends_with("locked") && user == 0;
        ASSERT_TRUE(!locked || seteuid(nobody) == 0);
        const settings set({"VEXA_CONFIG=" + file, "VEXA_LAST=1"});
        EXPECT_EQ(fill({"KEY", "LAST", "CONFIG"}),
                  seen(file == "broken" ? said("read_file", "Unknown read error on line 3 of broken.") : "",
                       {value, "1", file}));
        ASSERT_TRUE(!locked || seteuid(user) == 0);
    }
    close(ends[1]);
    replaced_files.clear();
}

TEST(environment_store, variables_are_stored_left_out_or_end_the_walk) {
    const std::string k = text('k', 1018), function = "cdbgp_populate_from_system_environment";
    for (const auto& [end, value, message] :
         {std::tuple("VEXA_Y=", "1", ""),
          {"", "absent", ""},
          {"VEXA_=x", "absent", "Failed to set variable VEXA_=x from environment"}}) {
        const settings set({"VEXA_A=a=b", "VEXA_" + k + "=1", "VEXA_B=" + k + "12345", "VEXA_" + k + "k=2",
                            "VEXA_C=" + k + "123456", "vexa_D=1", "E=1", "VEXA_NONE", "=1", end, "VEXA_Z=1"});
        EXPECT_EQ(
            fill({"A", k, "B", k + "k", "C", "vexa_D", "E", "NONE", "Z"}),
            seen(said(function, message), {"a=b", "1", k + "12345", none, none, none, none, none, value}));
    }
    char** const all = std::exchange(environ, nullptr);
    const seen result = fill({"A"});
    environ = all;
    EXPECT_EQ(result, seen(said(function, "Initialization of a handle to the system environment failed (3)"),
                           {none}));
}

TEST(environment_store, reading_cuts_but_measures_and_setting_fails_with_a_code) {
    const settings set({"VEXA_KEY=val"});
    ASSERT_EQ(cdbgp_env_init(), 0U);
    const char* const images[] = {"####", "", "v", "va", "val", "val"};
    for (std::uint32_t size = 0; size < std::size(images); ++size) {
        char out[] = "####";
        EXPECT_EQ(cdbgp_env_get("VEXA_KEY", out, size), 3);
        EXPECT_STREQ(out, images[size]);
    }
    const std::string k = text('k', 1024);
    EXPECT_EQ(cdbgp_env_set(("VEXA_" + k).c_str(), "1"), 0U);
    EXPECT_EQ(cdbgp_env_set((k + "k").c_str(), "1"), 3U);
    EXPECT_EQ(cdbgp_env_set("KEY", k.c_str()), 3U);
    const int blocks = calls.blocks;
    // First for the record, then for the copy of the key. A value that is there is only kept where there is
    // no memory for the new record.
    for (const auto& [key, failing, value, blocks_left] : {std::tuple("NEW", 1, "absent", 0),
                                                           {"NEW", 2, "absent", 0},
                                                           {"KEY", 1, "val", 0},
                                                           {"KEY", 2, "absent", -2}}) {
        calls.failing_malloc = failing;
        EXPECT_EQ(cdbgp_env_set(key, "2"), 2U);
        EXPECT_EQ(value_of(key), value);
        EXPECT_EQ(calls.blocks, blocks + blocks_left);
    }
    EXPECT_EQ(cdbgp_env_set("KEY", nullptr), 3U);
    EXPECT_EQ(cdbgp_env_set(k.c_str(), nullptr), 0U);
    EXPECT_EQ(value_of(k), none);
    EXPECT_EQ(calls.blocks, blocks - 4);
    cdbgp_env_term();
}

// Starts with these settings, and compares the result, the words of the modules and the message. All modules
// but those that are named have the word `all`.
void start(const std::string& variable, std::uint32_t all,
           const std::map<std::uint32_t, std::uint32_t>& words = {}, const std::string& message = {},
           std::uint32_t result = CDBGP_SUCCESS, int* failing_call = nullptr) {
    SCOPED_TRACE(variable);
    // Both a setting and a line of the configuration file, according to what stands in front.
    const settings set({variable}, variable);
    EXPECT_EQ(cdbgp_env_init(), CDBGP_SUCCESS);
    const int mutexes = calls.mutexes;
    if (failing_call != nullptr) {
        *failing_call = 1;
    }
    EXPECT_EQ(cdbgp_control_init(), result);
    if (result == CDBGP_SUCCESS) {
        cdbgp_control_term();
    }
    EXPECT_EQ(calls.mutexes, mutexes);
    cdbgp_env_term();
    EXPECT_EQ(take_log(), message);
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
        {"OSU_F,STDLIB_ALL,BASE_W,CUTILS_E,UNKNOWN_I", 0, {{20, 8}, {21, 7}, {1, 2}, {14, 4}, {0, 1}}},
        {"UKU_W,COUNTERFEED_W,HWC_W,HARDWARE_W,LOGGING_W,STX_W,MODULE08_W,MODULE19_W,MODULE33_W",
         0,
         {{2, 2}, {4, 2}, {5, 2}, {6, 2}, {7, 2}, {22, 2}, {8, 2}, {19, 2}, {33, 2}}},
        {"ALL_ALL", 7},
        {"ALLOC_WARN", 2},
        {"_WARN,ALL_", 1, {{0, 3}}},
        {"ALL_WARN , ALL_ERROR", 6},
        {"  CDBG_INFO junk_, OSU_ ERROR", 0, {{3, 1}, {20, 1}}},
        {"ALL_WARN,", 2, {}, "Trailing ',' at end of"},
        {"  ", 0, {}, "Trailing ',' at end of"},
        {"OSU_E,CDBG x,", 0, {{20, 4}}, "Missing '_' in"},
        {"CDBG,ALL_WARN", 0, {}, "Unexpected ',' in"},
        {"OSU_E,,OSU_I", 0, {{20, 4}}, "Unexpected ',' in"},
        {"CDBG_WARNING", 0, {}, "Unrecognized feature name 'WARNING' in"},
        {"OSU_E,OSU_warn,OSU_I", 0, {{20, 4}}, "Unrecognized feature name 'warn' in"},
        {"OSUX_WARN,ALL_ALL", 0, {}, "Unrecognized module ID 'OSUX' in"},
        // A blank in front of the underscore leaves the feature word without an end.
        {"ALL _WARN", 2},
        {"CDBG _WARN", 0, {}, "Unrecognized module ID 'CDBG ' in"},
        {"ALL _WARN,OSU_E", 0, {}, "Unrecognized feature name 'WARN,OSU_E' in"},
    };
    for (const auto& [text, all, words, message] : cases) {
        start("VEXA_CDBG_PERMISSIONS=" + text, all, words,
              message.empty() ? "" : said("process_permissions", message + " permissions '" + text + "'"));
    }
}

TEST(permissions, come_from_a_setting_of_any_length_or_are_the_default) {
    start("NONE=1", 6);
    start(own_name() + ":CDBG_PERMISSIONS=ALL_FAIL", 8);
    for (const std::size_t length : {127U, 128U, 1023U}) {
        start("VEXA_CDBG_PERMISSIONS=" + text(' ', length - 8) + "ALL_FAIL", 8);
    }
    const std::string no_lock = said("cdbgp_control_init", "Initialization of spin lock failed (1)");
    start("NONE=1", 8, {}, no_lock, CDBGP_FAILURE, &calls.failing_mutex_init);  // words as they were
    start("VEXA_CDBG_PERMISSIONS=" + text(' ', 128), 0, {},
          said("apply_setting", "Failed to allocate 129 bytes for environment variable value"),
          CDBGP_OUT_OF_MEMORY, &calls.failing_malloc);
}

}  // namespace
