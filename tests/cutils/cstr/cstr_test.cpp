// The formatter and the string functions.
#include <gtest/gtest.h>

#include <bit>
#include <climits>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <tuple>

#include "cutils/cstr/src/format_engine.h"
#include "cutils/cstr/src/format_writer.h"
#include "cutils/cstr/vexa_cutils_cstr.h"

namespace {

constexpr bool wide_words = sizeof(long) == 8;

// A sink that takes a number of characters and then fails.
struct limited_sink {
    std::string text;
    std::size_t limit;
};
constexpr std::int32_t sink_failure = -23;

std::int32_t put_limited(char character, void* context) {
    auto* sink = static_cast<limited_sink*>(context);
    if (sink->text.size() == sink->limit) {
        sink->limit = SIZE_MAX;  // what is put all the same shows
        return sink_failure;
    }
    sink->text += character;
    return 7;  // any result that isn't negative is a success
}

// Output to memory that the engine can't know as such, so that it puts one character at a time.
std::int32_t append_singly(char character, void* context) {
    return cutilsp_cstr_append(character, context);
}

// Formats into a buffer of every size up to the text's, between guards, both at a run's and at a character's
// time, and into a sink that fails at every character.
void check(const std::string& expected, std::size_t expected_result, const char* format, ...) {
    SCOPED_TRACE(format);
    const auto result = static_cast<std::int32_t>(expected_result);
    va_list args;
    for (std::uint32_t step = 0; step < 2 * (expected.size() + 3); ++step) {
        const std::uint32_t size = step / 2;
        std::string memory(size + 32, '\x5a'), expected_memory = memory;
        if (size != 0) {
            const std::string stored = expected.substr(0, size - 1);
            expected_memory.replace(16, stored.size() + 1, stored.c_str(), stored.size() + 1);
        }
        cutilsp_cstr_buffer_sink output = {&memory[16], size};
        cutilsp_cstr_sink sink = {0, append_singly, &output};
        va_start(args, format);
        const std::int32_t actual = step % 2 == 0 ? cutils_cstr_vsnprintf(&memory[16], size, format, args)
                                                  : cutilsp_cstr_format_string(&sink, format, args);
        va_end(args);
        if (step % 2 != 0 && size != 0) {
            *output.position = '\0';
        }
        ASSERT_EQ(actual, result) << "size " << size;
        ASSERT_EQ(memory, expected_memory) << "size " << size;
    }
    for (std::size_t limit = 0; limit <= expected.size(); ++limit) {
        limited_sink taken = {"", limit};
        cutilsp_cstr_sink sink = {0, put_limited, &taken};
        va_start(args, format);
        const std::int32_t actual = cutilsp_cstr_format_string(&sink, format, args);
        va_end(args);
        ASSERT_EQ(actual, limit == expected.size() ? result : sink_failure) << "limit " << limit;
        ASSERT_EQ(taken.text, expected.substr(0, limit));
        ASSERT_EQ(sink.count, static_cast<std::int32_t>(limit));
    }
}

// An address that is printed and never used.
void* address(std::uintptr_t value) {
    return reinterpret_cast<void*>(value);  // NOLINT(performance-no-int-to-ptr): there is nothing to optimise
}

// Expects a text, or the format to be refused behind it.
void prints(const std::string& expected, const char* format, auto... args) {
    check(expected, expected.size(), format, args...);
}
void refuses(const std::string& expected, const char* format, auto... args) {
    check(expected, static_cast<std::size_t>(-1), format, args...);
}

// Expects the C library's text.
void agrees(const std::string& format, auto... args) {
    char ours[512];
    char theirs[512];
    const std::int32_t result = cutils_cstr_snprintf(ours, sizeof ours, format.c_str(), args...);
    const int expected = std::snprintf(theirs, sizeof theirs, format.c_str(), args...);
#ifdef __ANDROID__
    // Its C library leaves out the zero that the language wants of an octal 0 without digits.
    if (format.ends_with('o') && std::strpbrk(theirs, "01234567") == nullptr) {
        return;
    }
#endif
    ASSERT_EQ(result, expected) << format;
    ASSERT_STREQ(ours, theirs) << format;
}

// What can be compared with the C library is, below; here is what a program may not ask of that, and a case
// of each kind for what `check` sees beside the text.
TEST(format, conversions) {
    prints("  007|-0042|-42  |    3", "%5.3d|%05d|%-05d|%05.1d", 7, -42, -42, 3);
    prints("0 0xff 0XFF 010 00010", "%#x %#x %#X %#o %#.5o", 0, 255, 255, 8, 8);
    prints("1 -2 3 18446744073709551615", "%d %lld %d %llu", 1, -2LL, 3, ULLONG_MAX);  // aligned arguments
    // As wide as a machine word, and the same number on every machine otherwise.
    prints(wide_words ? "ffffffffffffffff -1" : "ffffffff -1", "%lx %ld", -1L, -1L);
    prints(std::to_string(PTRDIFF_MIN), "%td", PTRDIFF_MIN);

    prints("abc|  abc|abc  |ab|   ab", "%s|%5s|%-5s|%.2s|%5.2s", "abc", "abc", "abc", "abc", "abc");
    prints("    abc|  x|x  |x", "%07s|%03c|%-3c|%.0c", "abc", 'x', 'x', 'x');
    prints("", "%.0s%.s", nullptr, nullptr);
    const char unterminated[] = {'a', 'b'};
    prints("ab", "%.2s", unterminated);
    prints(std::string("a\0b", 3), "a%cb", 0x100);
    prints("0x00000000|0x|0x012345|  0x12345678|0x00000000  ", "%+p|%.0p|%.6p|%#012p|%-012p", nullptr,
           nullptr, address(0x12345), address(0x12345678), nullptr);
    prints(wide_words ? "0xffffffffffffffff" : "0xffffffff", "%p", address(UINTPTR_MAX));
    prints("100%|%s", "%d%%|%%s", 100);
    prints("", "");
}

TEST(format, count) {
    // Everything but ll leaves the upper half alone, even of a long.
    std::int64_t counts[5];
    std::memset(counts, 0xff, sizeof counts);
    prints("abcde", "a%nb%lnc%lnd%zne%tn", &counts[0], &counts[1], &counts[2], &counts[3], &counts[4]);
    prints("abc", "abc%lln", &counts[2]);
    const std::int64_t expected[] = {1, 2, 3, 4, 5};
    for (std::size_t i = 0; i < std::size(expected); ++i) {
        EXPECT_EQ(static_cast<std::uint32_t>(counts[i]), expected[i]);
        EXPECT_EQ(counts[i] >> 32, i == 2 ? 0 : -1);
    }
}

TEST(format, width_and_precision) {
    prints("    7|7    |00007|7    |7", "%*d|%-*d|%0*d|%*d|%*d", 5, 7, 5, 7, 5, 7, -5, 7, 0, 7);
    prints("007|7|7", "%.*d|%.*d|%.-4d", 3, 7, -3, 7, 7);
    prints("007", "%03.-1d", 7);
    prints("", "%.-d", 0);
    // Digits of a precision wrap around in 32 bits: here to 3, to none, and with a sign back to 2.
    prints("007|7|07", "%.4294967299d|%.2147483648d|%.-4294967294d", 7, 7, 7);
}

TEST(format, refuses_what_it_does_not_know) {
    std::istringstream formats(
        "ab%2147483640d ab%2147483650d ab%99999999999d ab%*5d ab%5*d ab%*-d ab%.*5d ab%5-d ab%.5-d ab%.+5d "
        "ab%..5d ab% ab%5 ab%- ab%. ab%.5 ab%l ab%hhhd ab%llld ab%lhd ab%Ld ab%! ab%\x80 ab%hs ab%zs ab%hc "
        "ab%lp ab%tp ab%lc ab%ls ab%w ab%hn ab%hhn");
    for (std::string format; formats >> format;) {
        refuses("ab", format.c_str(), 5, 5);
    }
    // Most of these the C library would print.
    for (const char* format :
         {"%zd", "%zi", "%tu", "%to", "%tx", "%tX", "%jd", "%5%", "%l%", "% %", "%'d", "%1$d"}) {
        refuses("", format, 0LL, 0LL);
    }
    for (const char* format : {"%e", "%E", "%g", "%G", "%a", "%A", "%F", "%Lf"}) {
        refuses("1 x", (std::string("%d %s") + format).c_str(), 1, "x", 1.5);
    }
}

// Widths and precisions that no text could have: the count stays at its highest value, and memory is safe.
TEST(format, huge) {
    char text[9];
    const auto counts = [&text](std::int32_t expected, const char* expected_text, const char* format,
                                auto... args) {
        const char* volatile hidden = format;  // from the compiler, which would warn of what is tested here
        EXPECT_EQ(cutils_cstr_snprintf(text, sizeof text, hidden, args...), expected) << format;
        EXPECT_STREQ(text, expected_text) << format;
    };
    counts(2147483639, "        ", "%2147483639d", 7);
    counts(INT_MAX, "7       ", "%*d", INT_MIN, 7);
    counts(INT_MAX, "-0000000", "%.*d", INT_MAX, -7);
    counts(INT_MAX, "1.000000", "%.*f", INT_MAX, 1.0);
    counts(INT_MAX, "        ", "%2147483639d%2147483639d%%", 1, 2);
    counts(-1, "        ", "%2147483639d%2147483639d%!", 1, 2);
    counts(310, "17976931", "%.0f!", 1.7976931348623157e308);
}

TEST(format, agrees_with_the_c_library) {
    const long long values[] = {0,    1,     -1,      7,       -42,     127,       128,
                                -129, 65535, 1000000, INT_MAX, INT_MIN, LLONG_MAX, LLONG_MIN};
    for (unsigned flag_set = 0; flag_set < 32; ++flag_set) {
        std::string flags = "%";
        for (unsigned i = 0; i < 5; ++i) {
            flags += (flag_set >> i & 1) != 0 ? std::string(1, "#0- +"[i]) : "";
        }
        const bool text_flags = flags.find_first_of("#0 +") == std::string::npos;
        for (const char* layout : {"", "1", "9", "30", ".", ".0", ".1", ".6", ".25", "12.", "12.4", "4.12"}) {
            const std::string start = flags + layout;
            for (const long long value : values) {
                for (const char* conversion : {"d", "i", "u", "o", "x", "X"}) {
                    agrees(start + conversion, static_cast<int>(value));
                    agrees(start + "hh" + conversion, static_cast<int>(value));
                    agrees(start + "h" + conversion, static_cast<int>(value));
                    agrees(start + "l" + conversion, static_cast<long>(value));
                    agrees(start + "ll" + conversion, value);
                }
                agrees(start + "td", static_cast<std::ptrdiff_t>(value));
                agrees(start + "zx", static_cast<std::size_t>(value));
                agrees(flags + "*.*d", static_cast<int>(value % 40), static_cast<int>(value / 3 % 40), -77);
                if (text_flags && std::strchr(layout, '.') == nullptr) {
                    agrees(start + "c", static_cast<int>(value));
                    agrees(start + "p", address(UINTPTR_MAX - static_cast<std::uintptr_t>(value & 0xffff)));
                }
            }
            for (const char* text : {"", "a", "abcdef", "a text of more than thirty characters"}) {
                agrees(text_flags ? start + "s" : "%s", text);
            }
            for (const double value : {0.0, -0.0, 0.5, 2.5, -1234.5625, 1e15}) {
                agrees(start + "f", value);
            }
            if (HasFatalFailure()) {
                return;
            }
        }
    }
}

TEST(format_float, rules) {
    prints("0.000000 2 2. -0.0", "%f %.0f %#.0f %.1f", 0.0, 2.5, 2.5, -0.0);
    prints("1.5 1.5 1.5 1.5 1.5 1.5", "%.1hf %.1hhf %.1lf %.1llf %.1tf %.1zf", 1.5, 1.5, 1.5, 1.5, 1.5, 1.5);
    const auto infinity = std::bit_cast<double>(0x7ff0000000000000);
    const auto negative_nan = std::bit_cast<double>(0xfff8000000000000);
    prints("  inf|  inf|inf  | inf|+inf|-nan|  -nan", "%5f|%05f|%-5f|% f|%+.9f|%f|%06f", infinity, infinity,
           infinity, infinity, infinity, negative_nan, negative_nan);
    prints("0." + std::string(323, '0') + "49406564584124655", "%.340f",
           std::bit_cast<double>(std::uint64_t{1}));
    prints("0." + std::string(323, '0') + "9881313", "%.330f", std::bit_cast<double>(std::uint64_t{2}));
    prints("1 2.5 3", "%d %.1f %d", 1, 2.5, 3);  // an aligned argument between others
}

TEST(format_float, vectors) {
    std::ifstream file(FORMAT_F_VECTORS);
    std::string format;
    std::string bits;
    std::string text;
    std::getline(file, text);  // the names of the columns
    std::size_t count = 0;
    while (std::getline(file, format, '\t') && std::getline(file, bits, '\t') && std::getline(file, text)) {
        prints(text, format.c_str(), std::bit_cast<double>(std::uint64_t{std::stoull(bits, nullptr, 16)}));
        ++count;
    }
    EXPECT_GT(count, 200U);
}

// Below a million and to six decimals the text is the correctly rounded one.
TEST(format_float, agrees_with_the_c_library) {
    std::mt19937_64 random(1);  // NOLINT(cert-msc51-cpp): the same values in every run
    // The processor's emulation takes long.
    const int rounds = wide_words ? 3'000'000 : 100'000;
    for (int i = 0; i < rounds && !HasFatalFailure(); ++i) {
        const std::uint64_t bits = random();
        const std::uint64_t exponent = 1023 - 25 + (bits >> 52) % 45;
        const std::uint64_t fraction = bits & (~std::uint64_t{0} << i % 52) & 0xfffffffffffff;
        agrees("%.*f", static_cast<int>(bits % 7),
               std::bit_cast<double>(bits >> 63 << 63 | exponent << 52 | fraction));
    }
}

TEST(text, comparison_length_search_and_copy) {
    constexpr std::uint32_t unbounded = UINT32_MAX;
    const struct {
        const char *a, *b;
        std::uint32_t bound;
        int order;
    } pairs[] = {{"a", nullptr, 0, 0},       {"abc", "abd", 2, 0}, {"abc", "abd", unbounded, -1},
                 {"abd", "abc", 3, 1},       {"abc", "ab", 3, 1},  {"ab", "abc", 3, -1},
                 {"ab", "ab", unbounded, 0}, {"\xff", "a", 1, 1},  {"a\0b", "a\0c", 3, 0}};
    for (const auto& pair : pairs) {
        EXPECT_EQ(cutils_cstr_strncmp(pair.a, pair.b, pair.bound), pair.order) << pair.a;
    }
    EXPECT_EQ(cutils_cstr_len("abc", 2), 2U);
    EXPECT_EQ(cutils_cstr_len("abc", unbounded), 3U);
    EXPECT_EQ(cutils_cstr_len(nullptr, 0), 0U);

    const char* text = "abcb\xff";
    for (const auto& [character, place] : {std::pair{int{'b'}, 1}, {'b' + 0x100, 1}, {0xff, 4}, {0, 5}}) {
        EXPECT_EQ(cutils_cstr_strchr(text, character), text + place);
    }
    EXPECT_EQ(cutils_cstr_strchr(text, 'z'), nullptr);

    const struct {
        std::uint32_t size, n;
        std::string image;
    } copies[] = {{3, 3, "abc...."}, {2, 2, "ab....."}, {0, 0, "......."}, {7, unbounded, {"abc\0...", 7}}};
    for (const auto& copy : copies) {
        char memory[] = ".......";
        EXPECT_EQ(cutils_cstr_strncpy(memory, copy.size, "abc", copy.n), memory);
        EXPECT_EQ(std::string(memory, 7), copy.image);
    }
}

TEST(text_death_test, copy_that_does_not_fit_ends_the_process) {
    char memory[3];
    EXPECT_DEATH(cutils_cstr_strncpy(memory, 3, "abc", 4),
                 "^==>\\[ERROR\\] \\(.*\\) CUTILS: In file: cutils/cstr/src/vexa_cutils_cstr  line: [0-9]+ "
                 "cutils_cstr_strncpy\nThe destination buffer is not big enough to copy \"abc\"\n");
    EXPECT_DEATH(cutils_cstr_strncpy(memory, 2, "abc", 3), "CUTILS");
}

}  // namespace
