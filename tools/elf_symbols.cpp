#include "elf_symbols.h"

#include <elf.h>

#include <cstring>
#include <utility>
#include <vector>

namespace hseg_weights {

namespace {

// Reads a T at file offset `at`; false when any of it lies outside the file.
template <typename T>
bool read_at(const uint8_t *file, size_t size, uint64_t at, T *out) {
  if (at > size || size - at < sizeof(T)) return false;
  std::memcpy(out, file + at, sizeof(T));
  return true;
}

// Entry `i` of a table of `count` entries of T at `offset`.
template <typename T>
bool entry_at(const uint8_t *file, size_t size, uint64_t offset, uint64_t i, T *out) {
  // i < count <= 2^16 for headers, and count * sizeof(T) <= size for symbols
  // (checked by the callers), so i * sizeof(T) cannot wrap; the sum might.
  const uint64_t rel = i * sizeof(T);
  return offset <= UINT64_MAX - rel && read_at(file, size, offset + rel, out);
}

// A section's bytes lie inside the file.
bool section_in_file(const Elf64_Shdr &s, size_t size) {
  return s.sh_offset <= size && s.sh_size <= size - s.sh_offset;
}

// Address ranges of the readable loaded segments.
bool readable_segments(const uint8_t *file, size_t size, const Elf64_Ehdr &eh,
                       std::vector<std::pair<uint64_t, uint64_t>> *ranges) {
  if (eh.e_phnum > 0 && eh.e_phentsize != sizeof(Elf64_Phdr)) return false;
  for (uint64_t i = 0; i < eh.e_phnum; ++i) {
    Elf64_Phdr ph;
    if (!entry_at(file, size, eh.e_phoff, i, &ph)) return false;
    if (ph.p_type == PT_LOAD && (ph.p_flags & PF_R) != 0) ranges->emplace_back(ph.p_vaddr, ph.p_memsz);
  }
  return true;
}

bool find_dynsym(const uint8_t *file, size_t size, const Elf64_Ehdr &eh, Elf64_Shdr *symtab,
                 Elf64_Shdr *strtab, std::string *error) {
  if (eh.e_shnum == 0 || eh.e_shentsize != sizeof(Elf64_Shdr)) {
    *error = "the ELF file has no usable section headers";
    return false;
  }
  for (uint64_t i = 0; i < eh.e_shnum; ++i) {
    if (!entry_at(file, size, eh.e_shoff, i, symtab)) break;
    if (symtab->sh_type != SHT_DYNSYM) continue;
    if (symtab->sh_link >= eh.e_shnum || !entry_at(file, size, eh.e_shoff, symtab->sh_link, strtab) ||
        strtab->sh_type != SHT_STRTAB || !section_in_file(*symtab, size) ||
        !section_in_file(*strtab, size) || symtab->sh_entsize != sizeof(Elf64_Sym)) {
      *error = "the ELF file's dynamic symbol table is damaged";
      return false;
    }
    return true;
  }
  *error = "the ELF file has no dynamic symbol table (.dynsym); is it a shared library?";
  return false;
}

}  // namespace

bool read_dynamic_symbols(const uint8_t *file, size_t size, std::map<std::string, ElfSymbol> *symbols,
                          std::string *error) {
  symbols->clear();
  Elf64_Ehdr eh;
  if (!read_at(file, size, 0, &eh) || std::memcmp(eh.e_ident, ELFMAG, SELFMAG) != 0) {
    *error = "not an ELF file";
    return false;
  }
  if (eh.e_ident[EI_CLASS] != ELFCLASS64 || eh.e_ident[EI_DATA] != ELFDATA2LSB) {
    *error = "not a 64-bit little-endian ELF file";
    return false;
  }
  if (eh.e_type != ET_DYN) {
    *error = "not a shared library (ELF type " + std::to_string(eh.e_type) + ")";
    return false;
  }
  Elf64_Shdr symtab, strtab;
  std::vector<std::pair<uint64_t, uint64_t>> segments;
  if (!find_dynsym(file, size, eh, &symtab, &strtab, error)) return false;
  if (!readable_segments(file, size, eh, &segments)) {
    *error = "the ELF file's program headers are damaged";
    return false;
  }
  const char *names = reinterpret_cast<const char *>(file + strtab.sh_offset);
  const uint64_t count = symtab.sh_size / sizeof(Elf64_Sym);
  for (uint64_t i = 1; i < count; ++i) {  // entry 0 is the null symbol
    Elf64_Sym s;
    entry_at(file, size, symtab.sh_offset, i, &s);  // inside the checked section
    if (s.st_shndx == SHN_UNDEF) continue;
    if (s.st_name >= strtab.sh_size ||
        std::memchr(names + s.st_name, '\0', strtab.sh_size - s.st_name) == nullptr) {
      *error = "the ELF file's symbol " + std::to_string(i) + " has a damaged name";
      return false;
    }
    ElfSymbol e;
    e.value = s.st_value;
    e.size = s.st_size;
    e.type = ELF64_ST_TYPE(s.st_info);
    for (const auto &seg : segments)
      e.readable = e.readable || (e.value >= seg.first && e.size <= seg.second &&
                                  e.value - seg.first <= seg.second - e.size);
    (*symbols)[names + s.st_name] = e;
  }
  return true;
}

}  // namespace hseg_weights
