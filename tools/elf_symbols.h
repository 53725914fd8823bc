// The dynamic symbol table of a shared library, read from the file's bytes
// (64-bit little-endian ELF): what a data library defines, with the size
// each symbol records, before anything of it is loaded.
#ifndef HSEG_TOOLS_ELF_SYMBOLS_H_
#define HSEG_TOOLS_ELF_SYMBOLS_H_

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

namespace hseg_weights {

struct ElfSymbol {
  uint64_t value = 0;     // address, relative to where the library is loaded
  uint64_t size = 0;      // bytes, as the symbol records them
  uint8_t type = 0;       // STT_OBJECT, STT_FUNC, ...
  bool readable = false;  // [value, value + size) lies in a readable loaded segment
};

// The defined symbols of the file's .dynsym section, by name. False with a
// one-line message for anything but a well-formed 64-bit little-endian ELF
// shared library with a dynamic symbol table.
bool read_dynamic_symbols(const uint8_t *file, size_t size, std::map<std::string, ElfSymbol> *symbols,
                          std::string *error);

}  // namespace hseg_weights

#endif  // HSEG_TOOLS_ELF_SYMBOLS_H_
