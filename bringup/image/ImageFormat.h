// The formats of image files, by the names that users type and the words that messages use: the
// one table of them.
#pragma once

#include <optional>
#include <string>

namespace kvx::bringup {

enum class ImageFormat { kRaw, kIntelHex, kSRecord, kElf };

/// "raw", "ihex", "srec", "elf": what --format takes.
const char* formatName(ImageFormat format);
/// "raw binary", "Intel HEX", "S-record", "ELF".
const char* formatDescription(ImageFormat format);
/// The format called `name` (as formatName gives it); none for any other name.
std::optional<ImageFormat> parseFormat(const std::string& name);
/// The names, as a usage message lists them: "raw, ihex, srec or elf".
std::string formatNames();
/// The format that the extension of `path` names, in any case: ".hex" and ".ihex" Intel HEX;
/// ".srec", ".s19", ".s28" and ".s37" S-record. None for any other, raw binary included, which
/// has no extension of its own.
std::optional<ImageFormat> formatFromExtension(const std::string& path);

}  // namespace kvx::bringup
