// What is in an ELF file of this build's processor. The bytes are always the whole file.
#pragma once

#include <elf.h>
#include <link.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace test_support {

// The records from an offset on.
template <typename Record>
std::vector<Record> elf_records(const std::string& file, std::size_t offset, std::size_t count) {
    std::vector<Record> records(count);
    std::copy_n(file.data() + offset, count * sizeof(Record), reinterpret_cast<char*>(records.data()));
    return records;
}

// The symbols of one kind of table, SHT_DYNSYM or SHT_SYMTAB, that have a name and are defined, by name.
inline std::map<std::string, std::uintptr_t> elf_symbols(const std::string& file, unsigned table) {
    std::map<std::string, std::uintptr_t> result;
    const ElfW(Ehdr) header = elf_records<ElfW(Ehdr)>(file, 0, 1)[0];
    const auto sections = elf_records<ElfW(Shdr)>(file, header.e_shoff, header.e_shnum);
    for (const ElfW(Shdr) & section : sections) {
        if (section.sh_type != table) {
            continue;
        }
        for (const ElfW(Sym) & symbol :
             elf_records<ElfW(Sym)>(file, section.sh_offset, section.sh_size / sizeof(ElfW(Sym)))) {
            if (symbol.st_shndx != SHN_UNDEF && symbol.st_name != 0) {
                result[file.data() + sections[section.sh_link].sh_offset + symbol.st_name] = symbol.st_value;
            }
        }
    }
    return result;
}

}  // namespace test_support
