#include "bringup/Addresses.h"

#include <cctype>

#include "bringup/Error.h"
#include "bringup/Numbers.h"

namespace kvx::bringup {

ElfSymbols::Location parseAddress(const std::string& text, const ElfSymbols* symbols,
                                  const std::string& what) {
  ElfSymbols::Location location;
  // A symbol starts as C names do; everything else is a number, or no address at all.
  const bool name = !text.empty() && (std::isalpha(static_cast<unsigned char>(text[0])) != 0 ||
                                      text[0] == '_' || text[0] == '.' || text[0] == '$');
  if (symbols == nullptr || !name || parseUnsigned(text, location.address)) {
    if (symbols == nullptr && name) {
      throw usageError("invalid " + what + " '" + text +
                       "' (a number; symbols need the firmware's ELF file: --elf)");
    }
    location.address = parseNumber(text, what);
    return location;
  }
  return symbols->resolve(text);
}

}  // namespace kvx::bringup
