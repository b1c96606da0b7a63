// File opening, environment entries and number conversion.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <string>
#include <tuple>
#include <utility>

#include "stdlib/vexa_stdlib.h"

namespace {

// What the two calls below saw last, and what they answer.
std::string touched;
std::set<std::string> writable;
int errno_of_opened_files;

}  // namespace

extern "C" std::FILE* fopen(const char* path, const char* mode) {
    static const auto real = reinterpret_cast<decltype(&fopen)>(dlsym(RTLD_NEXT, "fopen64"));
    touched = path;
    std::FILE* file = real(path, mode);
    errno = file != nullptr && errno_of_opened_files != 0 ? errno_of_opened_files : errno;
    return file;
}

extern "C" int access(const char* path, int mode) noexcept(noexcept(::access(path, mode))) {
    touched = std::string("access ") + path;
    return mode == W_OK && writable.contains(path) ? 0 : -1;
}

namespace {

// The descriptor of a file that opens and takes the text, otherwise -1.
int open_file(std::uint32_t location, const std::string& name, std::uint32_t mode, const char* text) {
    errno = EPERM;  // whatever happened before
    std::FILE* file = nullptr;
    if (stdlibp_fopen(&file, stdlib_file_location{location}, name.c_str(), stdlib_file_mode{mode}) != 0) {
        return -1;
    }
    const int descriptor = fileno(file);
    EXPECT_GE(std::fputs(text, file), 0);
    std::fclose(file);
    return descriptor;
}

// The path that is touched last when a file is read. The storage is null where it is not set.
std::string path_touched(const char* storage, std::set<std::string> allowed, std::uint32_t location,
                         const std::string& name) {
    storage == nullptr ? unsetenv("EXTERNAL_STORAGE") : setenv("EXTERNAL_STORAGE", storage, 1);
    writable = std::move(allowed);
    touched = "nothing";
    open_file(location, name, STDLIB_MODE_READ, "");
    return touched;
}

TEST(files, name_location_and_storage_decide_the_path) {
    for (const std::string name :
         {"../x", "a..b", "..",  "a//b", "a.", ".",  "a/",  "/",   "c:x", "a\\b", "./x",
          "a./b", "*",    "a?b", "a\"b", "<a", "a>", "a|b", "a^b", "[a",  "a]",   "/n/"}) {
        EXPECT_EQ(path_touched("/base", {"/base"}, 0, name), "nothing") << name;
        EXPECT_EQ(path_touched("/base", {"/base"}, 1, name), "nothing") << name;
    }
    const std::set<std::string> fallbacks = {"/data/data/com.vexa.testjava/", "/sdcard"};
    EXPECT_EQ(path_touched("/base", {"/sdcard", "/base"}, 0, ".a.b/c;~#'%&{}"), "/base/.a.b/c;~#'%&{}");
    EXPECT_EQ(path_touched("/base", {"/base"}, 1, "/etc/x"), "/etc/x");
    EXPECT_EQ(path_touched("/base", {}, 2, "../x"), "../x");
    EXPECT_EQ(path_touched("/base", {"/base"}, 4, "n"), "nothing");
    EXPECT_EQ(path_touched("/base", fallbacks, 0, "n"), "access /base");
    EXPECT_EQ(path_touched("", fallbacks, 1, "n"), "access ");
    EXPECT_EQ(path_touched(nullptr, fallbacks, 0, "n"), "/data/data/com.vexa.testjava//n");
    EXPECT_EQ(path_touched(nullptr, {"/sdcard"}, 1, "n"), "/sdcard/n");
    EXPECT_EQ(path_touched(nullptr, {}, 0, "n"), "access /sdcard");
    // Paths are cut to 511 bytes, a storage of that length to itself. A longer one counts for nothing.
    const std::string long_name(600, 'n'), storage_511(511, 's'), storage_512(512, 's');
    EXPECT_EQ(path_touched("/base", {}, 2, long_name), long_name.substr(0, 511));
    EXPECT_EQ(path_touched("/base", {"/base"}, 0, long_name), "/base/" + long_name.substr(0, 505));
    EXPECT_EQ(path_touched(storage_511.c_str(), {storage_511}, 0, "n"), storage_511);
    EXPECT_EQ(path_touched(storage_512.c_str(), {storage_512}, 0, "n"), "n");
}

TEST(files, mode_errno_and_kind_of_file_decide_the_result) {
    std::string root = std::filesystem::temp_directory_path() / "stdlib_test.XXXXXX";
    ASSERT_NE(mkdtemp(root.data()), nullptr);
    setenv("EXTERNAL_STORAGE", root.c_str(), 1);
    writable = {root};
    const int descriptor = open_file(0, "f", STDLIB_MODE_WRITE, "first");
    EXPECT_GE(descriptor, 0);
    EXPECT_EQ(open_file(0, "", STDLIB_MODE_READ, ""), -1);  // a directory, which is closed again
    EXPECT_EQ(open_file(0, "f", STDLIB_MODE_COUNT, ""), -1);
    EXPECT_EQ(open_file(0, "f", STDLIB_MODE_WRITE, "a"), descriptor);
    EXPECT_EQ(open_file(3, root + "/f", STDLIB_MODE_APPEND, "b"), descriptor);
    errno_of_opened_files = ESPIPE;
    std::FILE* file = nullptr;
    EXPECT_EQ(stdlibp_fopen(&file, STDLIB_LOCATION_STORAGE, "f", STDLIB_MODE_READ), STDLIB_FAILURE);
    errno_of_opened_files = 0;
    char content[8];
    EXPECT_STREQ(std::fgets(content, sizeof content, file), "ab");
    std::fclose(file);
    std::filesystem::remove_all(root);
}

TEST(environment, configuration_name_is_replaced_when_empty) {
    setenv("VEXA_CONFIG", "o", 1);
    EXPECT_STREQ(stdlib_get_config_filename(), "o");
    EXPECT_STREQ(stdlib_config_filename.load(), "o");
    setenv("VEXA_CONFIG", "", 1);
    EXPECT_STREQ(stdlib_get_config_filename(), "/data/data/com.vexa.testjava/.vexa_config");
}

TEST(environment, entries_are_cut_but_measured_in_full) {
    std::string texts[] = {"KEY=va=ue", "ABCDEF=1234", "no delimiter", ""};
    char* const entries[] = {texts[0].data(), texts[1].data(), texts[2].data(), texts[3].data(), nullptr};
    stdlibp_env_iterator iterator = {STDLIBP_ENV_ITERATOR_TAG + 1, entries};
    char no_room[] = "#";
    std::size_t key_size = 0, value_size = 4;
    EXPECT_EQ(stdlibp_noninline_env_read(&iterator, no_room, &key_size, nullptr, &value_size), 0U);
    EXPECT_STREQ(no_room, "#");
    iterator.tag = STDLIBP_ENV_ITERATOR_TAG;
    const std::tuple<const char*, const char*, std::size_t, std::size_t, std::uint32_t> cases[] = {
        {"KEY", "va=", 3, 5, 1}, {"ABC", "123", 6, 4, 1}, {"no ", "", 0, 0, 1},
        {"", "", 0, 0, 0},       {"", "", 0, 0, 0},
    };
    for (const auto& [stored_key, stored_value, key_length, value_length, consumed] : cases) {
        char key[] = "########", value[] = "########";
        key_size = value_size = 4;
        EXPECT_EQ(stdlibp_noninline_env_read(&iterator, key, &key_size, value, &value_size), consumed);
        EXPECT_STREQ(key, stored_key);
        EXPECT_STREQ(value, stored_value);
        EXPECT_TRUE(key[4] == '#' && value[4] == '#');
        EXPECT_TRUE(key_size == key_length && value_size == value_length) << key;
    }
    EXPECT_EQ(iterator.cursor, entries + 4);
}

using converted = std::tuple<std::uint32_t, std::uint32_t, std::ptrdiff_t>;  // result, value, end

converted convert(const char* text, int base) {
    char* end = nullptr;
    std::uint32_t value = 77;
    const stdlib_result result = stdlibp_nonline_strtou32(&value, text, &end, base);
    return {result, value, end - text};
}

// No negative number exists. What is beyond 32 bits fails in 64 too.
TEST(number, conversion_is_the_same_in_both_data_models) {
    EXPECT_EQ(convert("12abc", 10), converted(0, 12, 2));
    EXPECT_EQ(convert("\t \t+8 ", 10), converted(0, 8, 5));
    EXPECT_EQ(convert("-1", 10), converted(1, 0, 2));
    EXPECT_EQ(convert("4294967295", 10), converted(0, UINT32_MAX, 10));
    EXPECT_EQ(convert("4294967296", 10), converted(1, UINT32_MAX, 10));
    EXPECT_EQ(convert("-4294967296", 10), converted(1, UINT32_MAX, 11));
    EXPECT_EQ(convert("99999999999999999999x", 10), converted(1, UINT32_MAX, 20));
    EXPECT_EQ(convert("NAN", 10), converted(0, 0, 0));
    EXPECT_EQ(convert(" -iNfinity", 36), converted(0, 0, 0));
    EXPECT_EQ(convert(" +0X10", 16), converted(0, 0, 3));
    EXPECT_EQ(convert("0x10", 0), converted(0, 16, 4));
    EXPECT_EQ(convert("10", 16), converted(0, 16, 2));
    EXPECT_EQ(convert(" 1", 37), converted(1, 0, 1));
    EXPECT_EQ(convert("\v\f\r\n-1", 10), converted(1, 0, 6));
    for (const auto& [text, kind] : {std::pair("\t-7", 0U), {"NAN", 1U}, {" +0X10", 2U}, {"-0x1", 3U}}) {
        const char* rest = text;
        EXPECT_EQ(reject_vexastdlib_nonlinux_cases(&rest, nullptr, 16), kind) << text;
        EXPECT_EQ(rest, text + (kind == 0 ? 1 : 0));
    }
}

}  // namespace
