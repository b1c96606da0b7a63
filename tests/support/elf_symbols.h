// The symbols of an ELF file of this build's processor.
#pragma once

#include <elf.h>
#include <link.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace test_support {

// The defined and named symbols of one kind of table, SHT_DYNSYM or SHT_SYMTAB, by name. The bytes are the
// whole file.
inline std::map<std::string, std::uintptr_t> elf_symbols(const std::string& file, unsigned table) {
    std::map<std::string, std::uintptr_t> result;
    const auto copy = [&file](std::size_t offset, auto* records, std::size_t count) {
        std::copy_n(file.data() + offset, count * sizeof *records, reinterpret_cast<char*>(records));
    };
    ElfW(Ehdr) header;
    copy(0, &header, 1);
    std::vector<ElfW(Shdr)> sections(header.e_shnum);
    copy(header.e_shoff, sections.data(), sections.size());
    for (const ElfW(Shdr) & section : sections) {
        if (section.sh_type != table) {
            continue;
        }
        std::vector<ElfW(Sym)> symbols(section.sh_size / sizeof(ElfW(Sym)));
        copy(section.sh_offset, symbols.data(), symbols.size());
        for (const ElfW(Sym) & symbol : symbols) {
            if (symbol.st_shndx != SHN_UNDEF && symbol.st_name != 0) {
                result[file.data() + sections[section.sh_link].sh_offset + symbol.st_name] = symbol.st_value;
            }
        }
    }
    return result;
}

}  // namespace test_support
