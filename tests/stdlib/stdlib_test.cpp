// File opening on real files, environment entries, and number conversion.
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "stdlib/vexa_stdlib.h"

namespace {

namespace fs = std::filesystem;

// What the two calls below saw, and what they answer in place of the C library.
std::vector<std::string> touched;
std::set<std::string> writable;
std::FILE* substitute;

}  // namespace

extern "C" std::FILE* fopen(const char* path, const char* mode) {
    static const auto real = reinterpret_cast<decltype(&fopen)>(dlsym(RTLD_NEXT, "fopen64"));
    touched.emplace_back(path);
    return substitute != nullptr ? substitute : real(path, mode);
}

extern "C" int access(const char* path, int mode) noexcept {
    static const auto real = reinterpret_cast<decltype(&access)>(dlsym(RTLD_NEXT, "access"));
    touched.emplace_back(path);
    return writable.contains(path) ? 0 : real(path, mode);
}

namespace {

void put(const fs::path& path, const std::string& content) {
    fs::create_directories(path.parent_path());
    std::ofstream(path) << content;
}

// The content of a file that opens.
std::string content(std::uint32_t location, const std::string& name) {
    std::FILE* file = nullptr;
    if (stdlibp_fopen(&file, stdlib_file_location{location}, name.c_str(), STDLIB_MODE_READ) !=
        STDLIB_SUCCESS) {
        return "failure";
    }
    char bytes[64];
    const std::size_t size = std::fread(bytes, 1, sizeof bytes, file);
    std::fclose(file);
    return {bytes, size};
}

// A path of `length` bytes below the folder `start`.
std::string deep(std::string start, std::size_t length) {
    while (length - start.size() > 200) {
        start += "/" + std::string(99, 'd');
    }
    return start + "/" + std::string(length - start.size() - 1, 'e');
}

// A folder of its own as the working folder, and the storage in it.
class files : public testing::Test {
protected:
    files() {
        std::string pattern = fs::temp_directory_path() / "stdlib_test.XXXXXX";
        EXPECT_NE(mkdtemp(pattern.data()), nullptr);
        root = pattern;
        base = root + "/base";
        fs::current_path(root);
        put(root + "/n", "in root");
        put(base + "/a/b.txt", "in base");
        setenv("EXTERNAL_STORAGE", base.c_str(), 1);
        touched.clear();
    }
    ~files() override {
        unsetenv("EXTERNAL_STORAGE");
        fs::current_path("/");
        fs::remove_all(root);
        writable.clear();
    }

    std::string root, base;
};

TEST_F(files, names_that_could_leave_the_storage_are_refused_untouched) {
    for (const std::string name :
         {"../x", "a..b", "..",  "a//b", "a.", ".",  "a/",  "/",   "c:x", "a\\b", "./x",
          "a./b", "*",    "a?b", "a\"b", "<a", "a>", "a|b", "a^b", "[a",  "a]",   "/n/"}) {
        EXPECT_EQ(content(0, name), "failure");
        EXPECT_EQ(content(1, name), "failure");
        EXPECT_TRUE(touched.empty()) << name;
        content(2, name);  // there the name is nobody's business
        EXPECT_EQ(touched, std::vector{name});
        touched.clear();
    }
    for (const char* name : {".x", "a.b/c", "a b;~#'%&{}", ""}) {
        content(0, name);
        EXPECT_EQ(touched.back(), base + "/" + name);
    }
}

TEST_F(files, location_and_storage_decide_the_path) {
    const std::string application = "/data/data/com.vexa.testjava/";
    const std::string whole = deep(root, STDLIB_PATH_SIZE - 1);
    const std::string below = deep(base, STDLIB_PATH_SIZE - 1);
    const std::string long_storage = deep(base + "/s", STDLIB_PATH_SIZE - 1);
    const std::string longer_storage = deep(base + "/l", STDLIB_PATH_SIZE);
    put(whole, "cut");
    put(below, "cut in base");
    put(long_storage + "/n", "beyond");
    put(longer_storage + "/n", "beyond");
    const struct {
        std::string storage;  // "unset" for none
        std::set<std::string> also_writable;
        std::uint32_t location;
        std::string name, touched_last, content;
    } cases[] = {
        {base, {application}, 0, "a/b.txt", base + "/a/b.txt", "in base"},
        {base, {}, 1, "a/b.txt", base + "/a/b.txt", "in base"},
        {base, {}, 1, root + "/n", root + "/n", "in root"},
        {base, {}, 2, "base/../n", "base/../n", "in root"},
        {"", {}, 3, "n", "n", "in root"},
        {base, {}, 4, "n", "none", "failure"},
        // Nothing else is tried when it is set, and the application's comes first when it isn't.
        {"", {application, "/sdcard"}, 0, "n", "", "failure"},
        {root + "/missing", {application, "/sdcard"}, 0, "n", root + "/missing", "failure"},
        {"unset", {application, "/sdcard"}, 0, "n", application + "/n", "failure"},
        {"unset", {"/sdcard"}, 1, "n", "/sdcard/n", "failure"},
        {"unset", {}, 0, "n", "/sdcard", "failure"},
        // Paths are cut to 511 bytes, a storage of that length to itself. A longer one counts for nothing.
        {base, {}, 2, whole + "tail", whole, "cut"},
        {base, {}, 0, below.substr(base.size() + 1) + "tail", below, "cut in base"},
        {long_storage, {}, 0, "n", long_storage, "failure"},
        {longer_storage, {}, 0, "n", "n", "in root"},
    };
    for (const auto& c : cases) {
        touched.clear();
        writable = c.also_writable;
        c.storage == "unset" ? unsetenv("EXTERNAL_STORAGE")
                             : setenv("EXTERNAL_STORAGE", c.storage.c_str(), 1);
        EXPECT_EQ(content(c.location, c.name), c.content) << c.name;
        EXPECT_EQ(touched.empty() ? "none" : touched.back(), c.touched_last) << c.name;
    }
}

TEST_F(files, storage_must_be_writable_by_this_user) {
    fs::permissions(root, fs::perms{0755});
    fs::permissions(base, fs::perms{0555});
    writable = {"/sdcard"};
    const pid_t child = fork();
    if (child == 0) {
        const uid_t nobody = 65534;  // to the superuser everything is writable
        const bool ready = getuid() != 0 || setresuid(nobody, nobody, nobody) == 0;
        const bool refused = content(0, "a/b.txt") == "failure" && touched == std::vector{base};
        _exit(ready && refused && content(2, "base/a/b.txt") == "in base" ? 0 : 1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    fs::permissions(base, fs::perms{0755});
}

TEST_F(files, errno_mode_and_kind_of_file_decide_the_result) {
    const auto open_with = [](const char* name, std::uint32_t mode, const char* text) {
        std::FILE* file = nullptr;
        errno = EPERM;
        const auto result = stdlibp_fopen(&file, STDLIB_LOCATION_ANYWHERE, name, stdlib_file_mode{mode});
        const bool written = file != nullptr && std::fputs(text, file) >= 0 && std::fclose(file) == 0;
        return std::pair(result, written);
    };
    EXPECT_EQ(open_with("f", 1, "first"), std::pair(STDLIB_SUCCESS, true));
    EXPECT_EQ(open_with("f", 1, "a"), std::pair(STDLIB_SUCCESS, true));
    EXPECT_EQ(open_with("f", 2, "b"), std::pair(STDLIB_SUCCESS, true));
    EXPECT_EQ(open_with("f", 3, ""), std::pair(STDLIB_FAILURE, false));
    EXPECT_EQ(content(3, "f"), "ab");
    // Appending to a pipe works, but looking for its end leaves an error.
    ASSERT_EQ(mkfifo("pipe", 0600), 0);
    const int reader = ::open("pipe", O_RDONLY | O_NONBLOCK);
    EXPECT_EQ(open_with("pipe", 1, "x"), std::pair(STDLIB_SUCCESS, true));
    EXPECT_EQ(open_with("pipe", 2, "x"), std::pair(STDLIB_FAILURE, true));
    ::close(reader);
    // A directory is closed again. A file without a descriptor is none.
    const auto descriptors = [] {
        return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
    };
    const auto before = descriptors();
    EXPECT_EQ(content(0, "a"), "failure");
    EXPECT_EQ(content(2, "/proc"), "failure");
    EXPECT_EQ(descriptors(), before);
    char memory[] = "in memory";
    substitute = fmemopen(memory, sizeof memory - 1, "r");
    EXPECT_EQ(content(0, "n"), "in memory");
    substitute = nullptr;
}

TEST(configuration, name_is_the_environments_unless_empty) {
    const std::string fixed = "/data/data/com.vexa.testjava/.vexa_config";
    for (const auto& [value, name] :
         {std::pair("/own", std::string("/own")), {"", fixed}, {nullptr, fixed}}) {
        value != nullptr ? setenv("VEXA_CONFIG", value, 1) : unsetenv("VEXA_CONFIG");
        EXPECT_EQ(stdlib_get_config_filename(), name);
        EXPECT_EQ(stdlib_config_filename.load(), name);
    }
}

TEST(environment, entries_are_cut_but_measured_in_full) {
    constexpr std::size_t no_buffer = SIZE_MAX;
    struct {
        std::string entry;
        std::size_t capacity;    // of both buffers
        std::string key, value;  // as stored
        std::size_t key_length, value_length;
    } const cases[] = {
        {"KEY=value", 8, "KEY", "value", 3, 5},
        {"ABCDEF=1", 4, "ABC", "1", 6, 1},
        {"ABC=1234", 4, "ABC", "123", 3, 4},
        {"A=b=", 8, "A", "b=", 1, 2},
        {"=", 8, "", "", 0, 0},
        {"no delimiter", 8, "no deli", "", 0, 0},
        {"", 8, "", "", 0, 0},
        {"KEY=value", 1, "", "", 3, 5},
        {"KEY=value", 0, "", "", 3, 5},
        {"KEY=value", no_buffer, "", "", 3, 5},
    };
    for (auto c : cases) {
        const auto read = [&](stdlibp_env_iterator& iterator) {
            std::string key(16, '#');
            std::string value(16, '#');
            std::size_t sizes[] = {c.capacity, c.capacity};
            const bool none = c.capacity == no_buffer;
            const bool consumed =
                stdlibp_noninline_env_read(&iterator, none ? nullptr : key.data(), &sizes[0],
                                           none ? nullptr : value.data(), &sizes[1]) != 0;
            return std::tuple(consumed, key, sizes[0], value, sizes[1]);
        };
        // What a buffer holds that a text was stored in.
        const auto image = [&](std::string text) {
            text += c.capacity == 0 || c.capacity == no_buffer ? "" : std::string(1, '\0');
            return text + std::string(16 - text.size(), '#');
        };
        const auto nothing = std::tuple(false, image(""), 0U, image(""), 0U);
        const bool consumed = !c.entry.empty();
        char* const entries[] = {c.entry.data(), nullptr};
        stdlibp_env_iterator iterator = {STDLIBP_ENV_ITERATOR_TAG + 1, entries};
        EXPECT_EQ(read(iterator), nothing);
        iterator.tag = STDLIBP_ENV_ITERATOR_TAG;
        EXPECT_EQ(read(iterator),
                  std::tuple(consumed, image(c.key), c.key_length, image(c.value), c.value_length));
        EXPECT_EQ(read(iterator), nothing);
        EXPECT_EQ(iterator.cursor, entries + 1);
    }
}

// No negative number exists, not even 0, and no base 1 or 37. What is beyond 32 bits fails in 64 too.
TEST(number, conversion_is_the_same_in_both_data_models) {
    constexpr std::uint32_t highest = 0xffffffff;
    struct {
        const char* text;
        int base;
        std::uint32_t kind, result, value;
        std::ptrdiff_t end;
    } const cases[] = {
        {"12abc", 10, 0, 0, 12, 2},
        {"\t \t+8 ", 10, 0, 0, 8, 5},
        {"\v6", 10, 0, 0, 6, 2},
        {"-1", 10, 0, 1, 0, 2},
        {"-", 10, 0, 1, 0, 0},
        {"\n-0", 10, 0, 1, 0, 3},
        {"4294967295", 10, 0, 0, highest, 10},
        {"4294967296", 10, 0, 1, highest, 10},
        {"-4294967295", 10, 0, 1, 0, 11},
        {"-4294967296", 10, 0, 1, highest, 11},
        {"99999999999999999999x", 10, 0, 1, highest, 20},
        {"-99999999999999999999", 10, 0, 1, highest, 21},
        {"", 10, 0, 0, 0, 0},
        {"  x", 10, 0, 0, 0, 2},
        {"NAN", 10, 1, 0, 0, 0},
        {" -iNfinity", 36, 1, 0, 0, 0},
        {" +0X10", 16, 2, 0, 0, 3},
        {"-0x10", 16, 3, 0, 0, 2},
        {"in", 36, 0, 0, 671, 2},
        {"0x10", 10, 0, 0, 0, 1},
        {"0x10", 0, 0, 0, 16, 4},
        {"10", 16, 0, 0, 16, 2},
        {"1", 1, 0, 0, 0, 0},
        {" 1", 37, 0, 1, 0, 1},
    };
    for (const auto& c : cases) {
        char* end = nullptr;
        for (char** wanted_end : {&end, static_cast<char**>(nullptr)}) {
            std::uint32_t value = 77;
            EXPECT_EQ(stdlibp_nonline_strtou32(&value, c.text, wanted_end, c.base), c.result) << c.text;
            EXPECT_EQ(value, c.value) << c.text;
        }
        EXPECT_EQ(end - c.text, c.end) << c.text;
        const char* text = c.text;
        EXPECT_EQ(reject_vexastdlib_nonlinux_cases(&text, nullptr, c.base), c.kind) << c.text;
        EXPECT_EQ(text, c.text + (c.kind == 0 ? std::strspn(c.text, "\t ") : 0)) << c.text;
    }
}

TEST(process, abort_and_allocator_are_the_c_librarys) {
    EXPECT_EXIT(stdlib_abort(), testing::KilledBySignal(SIGABRT), "");
    void* memory = stdlib_malloc_callback(nullptr, 100);
    std::memset(memory, 1, 100);
    stdlib_free_callback(memory);
}

}  // namespace
