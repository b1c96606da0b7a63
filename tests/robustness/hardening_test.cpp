// What makes faults in the shipped files harder to use, as the binary tools read it back from the files.
#include <gtest/gtest.h>

#include <regex>

#include "tests/support/process.h"

namespace {

using namespace test_support;  // NOLINT(google-build-using-namespace)

std::string output_of(std::vector<std::string> command) {
    const temporary_folder folder;
    const std::string output = folder.file("output");
    EXPECT_EQ(
        run({.command = std::move(command), .environment = {"LC_ALL=C"}, .preload = {}, .output = output}),
        0);
    return read_file(output);
}

bool has(const std::string& text, const char* expression) {
    return std::regex_search(text, std::regex(expression));
}

TEST(Hardening, OfTheShippedFiles) {
#ifdef __ANDROID__
    GTEST_SKIP() << "files_test reads the installed files there";
#endif
    for (const char* path : {COUNTERFEED_LIBRARY, COUNTERFEED_LAUNCHER}) {
        SCOPED_TRACE(path);
        const std::string headers =
            output_of({"/usr/bin/readelf", "--wide", "--file-header", "--segments", "--dynamic", path});
        EXPECT_TRUE(has(headers, "Type: +DYN")) << "not to be loaded anywhere";
        EXPECT_FALSE(has(headers, "TEXTREL"));
        EXPECT_TRUE(has(headers, "\n +GNU_RELRO "));
        EXPECT_TRUE(has(headers, "BIND_NOW")) << "the table of calls stays writable";
        EXPECT_TRUE(has(headers, "\n +GNU_STACK .* RW +0x"));
        EXPECT_FALSE(has(headers, " (RWE|R?W ?E) +0x")) << "writable code";
#ifdef __x86_64__
        EXPECT_TRUE(has(output_of({"/usr/bin/readelf", "--wide", "--notes", path}), "\\bSHSTK\\b"));
#endif
    }
}

TEST(Hardening, OfTheCode) {
#ifdef __ANDROID__
    GTEST_SKIP() << "files_test reads the installed files there";
#endif
    const auto imports = [](const char* path) {
        return output_of({"/usr/bin/readelf", "--wide", "--dyn-syms", path});
    };
    EXPECT_TRUE(has(imports(COUNTERFEED_LIBRARY), " UND __stack_chk_fail\\b"));
    EXPECT_TRUE(has(imports(COUNTERFEED_LIBRARY), " UND __vsnprintf_chk\\b"))
        << "of the logging facade, whose buffer is known";
    EXPECT_TRUE(has(imports(COUNTERFEED_LAUNCHER), " UND __fprintf_chk\\b"));
#ifdef __x86_64__
    for (const char* name : {"start", "osup_mutex_lock"}) {
        const std::string code = output_of({"/usr/bin/objdump", std::string("--disassemble=") + name,
                                            "--no-show-raw-insn", COUNTERFEED_LIBRARY});
        EXPECT_TRUE(has(code, (std::string("<") + name + ">:\n +[0-9a-f]+:\\s+endbr64").c_str()))
            << "no place to branch to";
    }
#endif
}

}  // namespace
