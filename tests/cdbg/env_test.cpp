// The environment store, filled from real files and environments.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <thread>
#include <utility>

#include "cdbg/src/vexa_cdbg_env.h"
#include "tests/cdbg/outputs.h"
#include "tests/cdbg/settings.h"
#include "tests/support/failing_calls.h"

namespace {

using namespace test_support;
using seen = std::pair<strings, strings>;

const char source[] = "cdbg/src/vexa_cdbg_env";

std::string text(char character, std::size_t count) {
    return std::string(count, character);
}

strings said(const std::string& message) {
    return message.empty() ? strings{} : strings{message};
}

std::string value_of(const std::string& name) {
    char value[CDBGP_ENV_TEXT_SIZE];
    return cdbgp_env_get(name.c_str(), value, sizeof value) < 0 ? "absent" : value;
}

// Fills a store, and gives what it said on the way and what the names stand for.
seen fill(const strings& names) {
    const int mutexes = calls.mutexes;
    EXPECT_EQ(cdbgp_env_init(), 0U);
    strings values;
    for (const std::string& name : names) {
        values.push_back(value_of(name));
    }
    cdbgp_env_term();
    EXPECT_EQ(calls.mutexes, mutexes);
    return {take_messages(source), values};
}

TEST(environment_store, each_line_is_stored_skipped_or_rejected_with_its_number) {
    const std::string k = text('k', 1023);
    struct {
        std::string line;
        std::string fault;  // in a parse error, or the setting that could not be made
        std::string name = "none", value = "absent";
    } const lines[] = {
        {"# a=1", "", "# a"},
        {"#" + text('=', 4000), ""},
        {"", ""},
        {" # no setting", "Key delimiter not found"},
        {" # a=b", "", " # a", "b"},
        {"FOO=1", "", "VEXA_FOO", "2"},
        {"VEXA_FOO=2", "", "FOO", "2"},
        {"vexa_FOO=3", "", "vexa_FOO", "3"},
        {"=value", "=value"},
        {"VEXA_=value", "VEXA_=value"},
        {"EMPTY=", "", "EMPTY", ""},
        {"TEXT=a:b=c", "", "TEXT", "a:b=c"},
        {"RETURN = 1 \r", "", "RETURN ", " 1 \r"},
        {"\r", "Key delimiter not found"},
        {k + "=1", "", k, "1"},
        {k + "k=1", "Key too long"},
        {"VALUE=" + k, "", "VALUE", k},
        {"VALUE=" + k + "k", "Value too long"},
        {k + "k:" + k + "k=", "Process name too long"},
        {k + ":" + k + "=" + k, "", k, "1"},
        {"A=" + text('v', 3069), "Value too long"},
        {"A=" + text('v', 3070), "Line too long to be processed"},
        {"LAST=1", "", "LAST", "1"},
    };
    std::string content;
    for (const auto& line : lines) {
        content += (content.empty() ? "" : "\n") + line.line;
    }
    for (const std::string end : {"", "\n", "\nlast"}) {
        const settings set({}, content + end);
        seen expected;
        const auto reject = [&](std::size_t number, const std::string& fault) {
            const std::string place = "rror on line " + std::to_string(number) + " of " + set.path() + ": ";
            expected.first.push_back(fault.find('=') == std::string::npos
                                         ? "Parse e" + place + fault + "."
                                         : "E" + place + "Could not set environment variable " + fault + ".");
        };
        strings names;
        for (const auto& line : lines) {
            names.push_back(line.name);
            expected.second.push_back(line.value);
            if (!line.fault.empty()) {
                reject(names.size(), line.fault);
            }
        }
        if (end.size() > 1) {
            reject(std::size(lines) + 1, "Key delimiter not found");
        }
        EXPECT_EQ(fill(names), expected);
    }
}

// Every sequence of three lines, with and without a variable.
TEST(environment_store, environment_beats_process_beats_generic_in_every_order) {
    const std::string name = program_invocation_short_name;
    const strings lines = {"KEY=g1", "VEXA_KEY=g2", name + ":KEY=p1", name + ":VEXA_KEY=p2", "other:KEY=o"};
    for (std::size_t i = 0; i < 125; ++i) {
        std::string content;
        std::string generic = "absent";
        std::string specific;
        for (const std::string& line : {lines[i / 25], lines[i / 5 % 5], lines[i % 5]}) {
            content += line + "\n";
            if (!line.starts_with("other")) {
                (line.starts_with(name) ? specific : generic) = line.substr(line.size() - 2);
            }
        }
        {
            const settings set({}, content);
            EXPECT_EQ(fill({"KEY"}), seen({}, {specific.empty() ? generic : specific})) << content;
        }
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
        {"bin/", ""},
        {"", ""},
        {"no file", ""},
        {"line\nend", "line and its end"},
    };
    for (const auto& [bytes, name] : cases) {
        std::FILE* file = bytes == "no file" ? nullptr : std::tmpfile();
        if (file != nullptr) {
            std::fwrite(bytes.data(), 1, bytes.size(), file);
            std::rewind(file);
        }
        replaced_files = {{"/proc/" + std::to_string(getpid()) + "/cmdline", file}};
        const settings set({}, name + ":KEY=1\n:EMPTY=1\nline:LINE=1");
        const std::string named = name.empty() || name.starts_with("line") ? "absent" : "1";
        EXPECT_EQ(fill({"KEY", "EMPTY", "LINE"}),
                  seen({}, {name.empty() ? "1" : named, name.empty() ? "1" : "absent", "absent"}));
        replaced_files.clear();
    }
}

TEST(environment_store, a_source_that_cannot_be_read_ends_and_the_next_follows) {
    const temporary_folder folder;
    const std::string pipe = folder.file("pipe");
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    std::ofstream(folder.file("empty")).close();
    std::ofstream(folder.file("locked")) << "KEY=1";
    ASSERT_EQ(chmod(folder.file("locked").c_str(), 0), 0);
    // Fails in the third line, which is lost with all that it had.
    const auto read = [](void* content, char* buffer, std::size_t size) -> ssize_t {
        std::string& rest = *static_cast<std::string*>(content);
        return rest.empty() ? -1 : static_cast<ssize_t>(std::exchange(rest, "").copy(buffer, size));
    };
    std::string content = "KEY=1\n\nKEY=2";
    replaced_files["broken"] =
        fopencookie(&content, "r", {.read = read, .write = {}, .seek = {}, .close = {}});

    const uid_t user = geteuid();
    const uid_t nobody = 65534;  // the superuser reads everything
    for (const auto& [file, value, message] :
         {std::tuple(folder.file("missing"), "absent", ""),
          {folder.file("empty"), "absent", ""},
          {folder.file(""), "absent", ""},
          {folder.file("locked"), "absent", ""},
          {pipe, "1", ""},
          {"/proc/self/mem", "absent", "Unknown read error on line 1 of /proc/self/mem."},
          {"broken", "1", "Unknown read error on line 3 of broken."}}) {
        std::thread writer([&, is_pipe = file == pipe] {
            if (is_pipe) {
                std::ofstream(pipe) << "KEY=1";
            }
        });
        const bool locked = file.ends_with("locked") && user == 0;
        ASSERT_TRUE(!locked || seteuid(nobody) == 0);
        const settings set({"VEXA_CONFIG=" + file, "VEXA_LAST=1"});
        EXPECT_EQ(fill({"KEY", "LAST", "CONFIG"}), seen(said(message), {value, "1", file}));
        ASSERT_TRUE(!locked || seteuid(user) == 0);
        writer.join();
    }
    replaced_files.clear();
}

TEST(environment_store, variables_are_stored_left_out_or_end_the_walk) {
    const std::string k = text('k', 1018), none = "absent";
    for (const auto& [end, value, message] :
         {std::tuple("VEXA_Y=", "1", ""),
          {"", "absent", ""},
          {"VEXA_=x", "absent", "Failed to set variable VEXA_=x from environment"}}) {
        const settings set({"VEXA_A=a=b", "VEXA_" + k + "=1", "VEXA_B=" + k + "12345", "VEXA_" + k + "k=1",
                            "VEXA_C=" + k + "123456", "vexa_D=1", "E=1", "VEXA_NONE", "=1", end, "VEXA_Z=1"});
        EXPECT_EQ(fill({"A", k, "B", k + "k", "C", "vexa_D", "E", "NONE", "Z"}),
                  seen(said(message), {"a=b", "1", k + "12345", none, none, none, none, none, value}));
    }
    char** const all = std::exchange(environ, nullptr);
    const seen result = fill({"A"});
    environ = all;
    EXPECT_EQ(result, seen({"Initialization of a handle to the system environment failed (3)"}, {none}));
}

// The file's path is cut to 511 bytes where it is opened, and the message to 1023 where it is sent.
TEST(environment_store, long_paths_and_messages_are_cut) {
    const temporary_folder folder;
    std::string path = folder.file("");
    path += text('/', 510 - path.size()) + "f";
    std::ofstream(path) << "KEY=1\n=" << text('v', 1023);
    const settings set({"VEXA_CONFIG=" + path + "more"});
    const auto [messages, values] = fill({"KEY", "CONFIG"});
    EXPECT_EQ(values, (strings{"1", path + "more"}));
    ASSERT_EQ(messages.size(), 1U);
    const std::string whole =
        "Error on line 2 of " + path + "more: Could not set environment variable =" + text('v', 1023);
    const std::size_t kept = messages[0].size() - std::strlen("\n***MESSAGE TRUNCATED***");
    EXPECT_EQ(messages[0], whole.substr(0, kept) + "\n***MESSAGE TRUNCATED***");
    EXPECT_GT(kept, 850U);
}

TEST(environment_store, a_value_is_cut_to_the_buffer_but_measured_in_full) {
    const settings set({"VEXA_KEY=val"});
    ASSERT_EQ(cdbgp_env_init(), 0U);
    const char* const images[] = {"####", "", "v", "va", "val", "val"};
    for (std::uint32_t size = 0; size < std::size(images); ++size) {
        char out[] = "####";
        EXPECT_EQ(cdbgp_env_get("VEXA_KEY", out, size), 3);
        EXPECT_STREQ(out, images[size]);
    }
    EXPECT_EQ(cdbgp_env_get("NONE", nullptr, 8), -1);
    cdbgp_env_term();
}

TEST(environment_store, setting_fails_with_a_code_and_changes_nothing) {
    const settings set({});
    ASSERT_EQ(cdbgp_env_init(), 0U);
    const std::string k = text('k', 1024);
    EXPECT_EQ(cdbgp_env_set(("VEXA_" + k).c_str(), "1"), 0U);
    EXPECT_EQ(cdbgp_env_set((k + "k").c_str(), "1"), 3U);
    EXPECT_EQ(cdbgp_env_set("KEY", k.c_str()), 3U);
    EXPECT_EQ(cdbgp_env_set("KEY", nullptr), 3U);
    // The record, the copy of the key, and for the 21st key a larger table.
    for (int count = 1; count < 21; ++count) {
        const std::string key = std::to_string(count);
        for (int n = count < 20 ? 2 : 3; n > 0; --n) {
            const int blocks = calls.blocks;
            calls.failing_malloc = n;
            EXPECT_EQ(cdbgp_env_set(key.c_str(), "1"), 2U);
            EXPECT_EQ(calls.blocks, blocks + (count == 20 && n == 3 ? 1 : 0)) << "only the table may stay";
            EXPECT_EQ(value_of(key), "absent");
        }
        EXPECT_EQ(cdbgp_env_set(key.c_str(), "1"), 0U);
    }
    EXPECT_EQ(cdbgp_env_set("VEXA_7", nullptr), 0U);
    EXPECT_EQ(value_of("7") + value_of("8"), "absent1");
    // A value that is there is only kept where there is no memory for the new record.
    for (const auto& [n, value] : {std::pair(1, "1"), {2, "absent"}}) {
        calls.failing_malloc = n;
        EXPECT_EQ(cdbgp_env_set("8", "2"), 2U);
        EXPECT_EQ(value_of("8"), value);
    }
    cdbgp_env_term();
}

TEST(environment_store, the_public_door_opens_once_diagnostics_starts) {
    const settings set({"VEXA_KEY=value"});
    const outcome result = run_apart([] {
        calls.failing_mutex_init = 1;
        const bool refused = cdbg_env_get("KEY", nullptr, 0) == -1;
        const bool opened = cdbg_env_get("KEY", nullptr, 0) == 5 && cdbg_env_get("K", nullptr, 0) == -1;
        const bool said = take_messages(source) == strings{"Initialization of spin lock failed (1)"};
        _exit(refused && opened && said ? 0 : 1);
    });
    EXPECT_EQ(result.status, 0);
}

}  // namespace
