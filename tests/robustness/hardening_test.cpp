// What makes faults in the shipped files harder to use, read back from the files.
#include <gtest/gtest.h>

#include "tests/support/elf_symbols.h"
#include "tests/support/process.h"

namespace {

using namespace test_support;  // NOLINT(google-build-using-namespace)

class elf_file {
public:
    explicit elf_file(const std::string& path) : bytes_(read_file(path)) {}

    const ElfW(Phdr) * segment(unsigned type) const {
        for (const ElfW(Phdr) & segment : segments_) {
            if (segment.p_type == type) {
                return &segment;
            }
        }
        return nullptr;
    }

    // The value of a dynamic entry, or 0.
    std::uintptr_t dynamic(long tag) const {
        const ElfW(Phdr)* const table = segment(PT_DYNAMIC);
        for (const auto& entry :
             elf_records<ElfW(Dyn)>(bytes_, table->p_offset, table->p_filesz / sizeof(ElfW(Dyn)))) {
            if (entry.d_tag == tag) {
                return static_cast<std::uintptr_t>(entry.d_un.d_val);
            }
        }
        return 0;
    }

    bool imports(const std::string& name) const {
        for (const auto& [symbol, value] : elf_symbols(bytes_, SHT_DYNSYM, false)) {
            if (symbol == name) {
                return true;
            }
        }
        return false;
    }

    // The bytes of a property of the processor's features; 0 without the note.
    std::uint32_t features() const {
        constexpr std::uint32_t type_features = 0xc000'0002;
        const ElfW(Phdr)* const note = segment(PT_GNU_PROPERTY);
        if (note == nullptr) {
            return 0;
        }
        // Behind the note's header and name: properties of a type, a size and a value in whole words.
        const auto words =
            elf_records<std::uint32_t>(bytes_, note->p_offset, note->p_filesz / sizeof(std::uint32_t));
        for (std::size_t i = 4; i + 2 < words.size(); i += 2 + (words[i + 1] + 7) / 8 * 2) {
            if (words[i] == type_features) {
                return words[i + 2];
            }
        }
        return 0;
    }

    // The code at an exported function.
    std::string code(const std::string& name, std::size_t size) const {
        // The addresses of these files' first segments are offsets; code may lie elsewhere.
        const std::uintptr_t address = elf_symbols(bytes_, SHT_DYNSYM).at(name);
        for (const ElfW(Phdr) & part : segments_) {
            if (part.p_type == PT_LOAD && address - part.p_vaddr < part.p_filesz) {
                return bytes_.substr(address - part.p_vaddr + part.p_offset, size);
            }
        }
        return {};
    }

    const std::vector<ElfW(Phdr)>& segments() const { return segments_; }
    unsigned type() const { return elf_header(bytes_).e_type; }

private:
    const std::string bytes_;
    const std::vector<ElfW(Phdr)> segments_ = elf_segments(bytes_);
};

TEST(Hardening, OfTheShippedFiles) {
    for (const char* path : {COUNTERFEED_LIBRARY, COUNTERFEED_LAUNCHER}) {
        SCOPED_TRACE(path);
        const elf_file file(path);
        EXPECT_EQ(file.type(), ET_DYN) << "not to be loaded anywhere";
        EXPECT_EQ(file.dynamic(DT_TEXTREL), 0U);
        ASSERT_NE(file.segment(PT_GNU_RELRO), nullptr);
        EXPECT_NE(file.dynamic(DT_FLAGS) & DF_BIND_NOW, 0U) << "the table of calls stays writable";
        ASSERT_NE(file.segment(PT_GNU_STACK), nullptr);
        EXPECT_EQ(file.segment(PT_GNU_STACK)->p_flags & PF_X, 0U);
        for (const ElfW(Phdr) & segment : file.segments()) {
            EXPECT_NE(segment.p_flags & (PF_W | PF_X), unsigned{PF_W | PF_X}) << segment.p_vaddr;
        }
#ifdef __x86_64__
        constexpr unsigned shadow_stack = 2;
        EXPECT_NE(file.features() & shadow_stack, 0U);
#endif
    }
}

TEST(Hardening, OfTheCode) {
    const elf_file library(COUNTERFEED_LIBRARY);
    EXPECT_TRUE(library.imports("__stack_chk_fail"));
    EXPECT_TRUE(library.imports("__vsnprintf_chk")) << "of the logging facade, whose buffer is known";
    EXPECT_TRUE(elf_file(COUNTERFEED_LAUNCHER).imports("__fprintf_chk"));
#ifdef __x86_64__
    for (const char* name : {"start", "osup_mutex_lock"}) {
        EXPECT_EQ(library.code(name, 4), "\xf3\x0f\x1e\xfa") << name << " is no place to branch to";
    }
#endif
}

}  // namespace
