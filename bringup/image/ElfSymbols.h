// The symbols of an ELF file, so that users may write `g_boot_status` or `g_boot_status+0x10`
// where an address is taken, and list the symbols whose names match a pattern. Holds the names,
// addresses, sizes and types of the symbol table (.symtab, or .dynsym when the file has only
// that); not the file, which is closed once read. Immutable once made: safe to share between
// threads.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kvx::bringup {

class ElfSymbols {
 public:
  enum class Type {
    kFunction,  ///< code (STT_FUNC, STT_GNU_IFUNC)
    kObject,    ///< data (STT_OBJECT)
    kNoType,    ///< a label or a linker-defined address (STT_NOTYPE)
    kOther,     ///< a type that only the processor or the system knows
  };

  struct Symbol {
    std::string name;
    uint64_t address = 0;
    /// In bytes; 0 when the file does not say.
    uint64_t size = 0;
    Type type = Type::kNoType;
    /// For a local symbol, the source file that its table names before it; empty otherwise.
    std::string file;
  };

  /// Where SYMBOL or SYMBOL+OFFSET is.
  struct Location {
    /// The symbol's address plus the offset.
    uint64_t address = 0;
    /// The bytes from there to the symbol's end; 0 at or past its end, or when it has no size.
    uint64_t length = 0;
    const Symbol* symbol = nullptr;
  };

  /// Reads the symbol table of the ELF file at `path`. Symbols without a name, an address in the
  /// program (undefined, common, thread-local) or a use as an address (section and file symbols)
  /// are left out. Throws a file Error when the file cannot be read, and a usage Error when it is
  /// not ELF, is a relocatable object (whose symbols have no addresses yet), or has no symbol table.
  explicit ElfSymbols(const std::string& path);

  /// Every symbol, by address, then by name.
  const std::vector<Symbol>& symbols() const { return m_symbols; }

  /// Where `text`, "SYMBOL" or "SYMBOL+OFFSET" (OFFSET decimal, or hex with 0x), is. Throws a
  /// usage Error for an unknown symbol, naming the near misses; for a name that several symbols
  /// at different addresses share, naming them; for a malformed offset, or one that runs past the
  /// top of the 64-bit address space.
  Location resolve(const std::string& text) const;

  /// The symbols whose names match the shell pattern `pattern` (fnmatch: *, ?, [...]), every one
  /// when it is empty, by address, then by name.
  std::vector<const Symbol*> matching(const std::string& pattern) const;

  /// "function", "object", "notype", "other".
  static const char* typeName(Type type);

 private:
  /// The symbols called `name`.
  std::vector<const Symbol*> named(const std::string& name) const;

  std::string m_path;
  std::vector<Symbol> m_symbols;
  /// Indexes into m_symbols, by name.
  std::vector<size_t> m_byName;
};

}  // namespace kvx::bringup
