#include "bringup/image/ElfSymbols.h"

#include <fnmatch.h>
#include <gelf.h>

#include <algorithm>
#include <cstring>
#include <limits>

#include "bringup/Error.h"
#include "bringup/Numbers.h"
#include "bringup/Text.h"
#include "bringup/image/ImageFile.h"
#include "bringup/image/LibElf.h"

namespace kvx::bringup {
namespace {

/// The most near misses that an unknown name's message suggests.
constexpr size_t kNearMisses = 5;

ElfSymbols::Type typeOf(unsigned type) {
  switch (type) {
    case STT_FUNC:
    case STT_GNU_IFUNC:
      return ElfSymbols::Type::kFunction;
    case STT_OBJECT:
      return ElfSymbols::Type::kObject;
    case STT_NOTYPE:
      return ElfSymbols::Type::kNoType;
    default:
      return ElfSymbols::Type::kOther;
  }
}

/// Whether `name` is a mapping symbol ("$a", "$d", "$t", "$x", "$x.name"), which some processors'
/// ELF files hold by the thousand to mark code and data: no one looks one up.
bool isMappingSymbol(const char* name) {
  return name[0] == '$' && name[1] != '\0' && std::strchr("adtx", name[1]) != nullptr &&
         (name[2] == '\0' || name[2] == '.');
}

}  // namespace

ElfSymbols::ElfSymbols(const std::string& path) : m_path(path) {
  const ImageFile file = ImageFile::open(path);
  if (file.isStream()) {
    throw usageError(file.name() + " is not a regular file: its symbols are read by seeking");
  }
  const ElfHandle elf = readElf(file.descriptor());
  GElf_Ehdr header;
  if (elf == nullptr || ::elf_kind(elf.get()) != ELF_K_ELF || ::gelf_getehdr(elf.get(), &header) == nullptr) {
    throw usageError("'" + path + "' is not an ELF file");
  }
  if (header.e_type == ET_REL) {
    throw usageError("'" + path +
                     "' is a relocatable object file: its symbols have no addresses until it is linked");
  }
  // .symtab has every symbol; a stripped file may still have .dynsym, the exported ones.
  Elf_Scn* table = nullptr;
  GElf_Shdr tableHeader{};
  for (Elf_Scn* section = ::elf_nextscn(elf.get(), nullptr); section != nullptr;
       section = ::elf_nextscn(elf.get(), section)) {
    GElf_Shdr sectionHeader;
    if (::gelf_getshdr(section, &sectionHeader) == nullptr) continue;
    if (sectionHeader.sh_type == SHT_SYMTAB || (sectionHeader.sh_type == SHT_DYNSYM && table == nullptr)) {
      table = section;
      tableHeader = sectionHeader;
    }
    if (sectionHeader.sh_type == SHT_SYMTAB) break;
  }
  if (table == nullptr) throw usageError("'" + path + "' has no symbol table (was it stripped?)");
  Elf_Data* data = ::elf_getdata(table, nullptr);
  if (data == nullptr || tableHeader.sh_entsize == 0) {
    throw Error(Error::Kind::kFile, "cannot read the symbol table of '" + path + "'", elfError());
  }
  // Local symbols follow the file symbol of the source file they come from.
  std::string source;
  const size_t count = tableHeader.sh_size / tableHeader.sh_entsize;
  for (size_t i = 0; i < count; ++i) {
    GElf_Sym symbol;
    if (::gelf_getsym(data, static_cast<int>(i), &symbol) == nullptr) continue;
    const char* name = ::elf_strptr(elf.get(), tableHeader.sh_link, symbol.st_name);
    const unsigned type = GELF_ST_TYPE(symbol.st_info);
    if (type == STT_FILE) {
      source = name != nullptr ? name : "";
      continue;
    }
    if (name == nullptr || name[0] == '\0' || isMappingSymbol(name) || type == STT_SECTION ||
        type == STT_TLS || type == STT_COMMON || symbol.st_shndx == SHN_UNDEF ||
        symbol.st_shndx == SHN_COMMON) {
      continue;
    }
    m_symbols.push_back({name, symbol.st_value, symbol.st_size, typeOf(type),
                         GELF_ST_BIND(symbol.st_info) == STB_LOCAL ? source : std::string()});
  }
  std::sort(m_symbols.begin(), m_symbols.end(), [](const Symbol& a, const Symbol& b) {
    return a.address != b.address ? a.address < b.address : a.name < b.name;
  });
  m_byName.resize(m_symbols.size());
  for (size_t i = 0; i < m_byName.size(); ++i) m_byName[i] = i;
  std::stable_sort(m_byName.begin(), m_byName.end(),
                   [this](size_t a, size_t b) { return m_symbols[a].name < m_symbols[b].name; });
}

ElfSymbols::Location ElfSymbols::resolve(const std::string& text) const {
  std::vector<const Symbol*> symbols = named(text);
  std::string name = text;
  uint64_t offset = 0;
  const size_t plus = text.rfind('+');
  if (symbols.empty() && plus != std::string::npos && plus != 0) {
    name = text.substr(0, plus);
    const std::string offsetText = text.substr(plus + 1);
    if (!parseUnsigned(offsetText, offset)) {
      throw usageError("invalid offset '" + offsetText + "' in '" + text + "' (decimal, or hex with 0x)");
    }
    symbols = named(name);
  }
  if (symbols.empty()) {
    std::vector<std::string> names;
    for (const Symbol& symbol : m_symbols) names.push_back(symbol.name);
    std::vector<std::string> near = nearMisses(name, names, kNearMisses);
    for (std::string& miss : near) miss = "'" + miss + "'";
    throw usageError("unknown symbol '" + name + "' in '" + m_path + "'" +
                     (near.empty() ? "" : " (did you mean " + listing(near, "or") + "?)"));
  }
  // Several symbols of one name at one address are one place (aliases); the one with a size tells
  // the most.
  const Symbol* chosen = symbols.front();
  std::vector<std::string> places;
  for (const Symbol* symbol : symbols) {
    if (symbol->address != chosen->address) {
      for (const Symbol* each : symbols) {
        places.push_back(hexAddress(each->address) + (each->file.empty() ? "" : " (" + each->file + ")"));
      }
      throw usageError("ambiguous symbol '" + name + "': " + std::to_string(symbols.size()) +
                       " symbols have that name, at " + listing(places, "and") + "; give an address instead");
    }
    if (symbol->size > chosen->size) chosen = symbol;
  }
  if (chosen->address > std::numeric_limits<uint64_t>::max() - offset) {
    throw usageError("'" + text + "' runs past the end of the 64-bit address space");
  }
  return {chosen->address + offset, offset < chosen->size ? chosen->size - offset : 0, chosen};
}

std::vector<const ElfSymbols::Symbol*> ElfSymbols::matching(const std::string& pattern) const {
  std::vector<const Symbol*> found;
  for (const Symbol& symbol : m_symbols) {
    if (pattern.empty() || ::fnmatch(pattern.c_str(), symbol.name.c_str(), 0) == 0) found.push_back(&symbol);
  }
  return found;
}

const char* ElfSymbols::typeName(Type type) {
  switch (type) {
    case Type::kFunction:
      return "function";
    case Type::kObject:
      return "object";
    case Type::kNoType:
      return "notype";
    case Type::kOther:
      return "other";
  }
  return "?";
}

std::vector<const ElfSymbols::Symbol*> ElfSymbols::named(const std::string& name) const {
  const auto first =
      std::lower_bound(m_byName.begin(), m_byName.end(), name,
                       [this](size_t index, const std::string& key) { return m_symbols[index].name < key; });
  std::vector<const Symbol*> symbols;
  for (auto it = first; it != m_byName.end() && m_symbols[*it].name == name; ++it) {
    symbols.push_back(&m_symbols[*it]);
  }
  return symbols;
}

}  // namespace kvx::bringup
