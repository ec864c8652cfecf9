// Addresses as users write them: a number, or, when the firmware's ELF file is known, a symbol,
// with an offset or without.
#pragma once

#include <string>

#include "bringup/image/ElfSymbols.h"

namespace kvx::bringup {

/// `text` as an address: decimal, or hex with 0x; with `symbols`, also SYMBOL or SYMBOL+OFFSET.
/// The length is the bytes from there to the symbol's end (0 for a number, or a symbol without a
/// size). Throws a usage Error naming `what` and, for a symbol, its near misses.
ElfSymbols::Location parseAddress(const std::string& text, const ElfSymbols* symbols,
                                  const std::string& what);

}  // namespace kvx::bringup
