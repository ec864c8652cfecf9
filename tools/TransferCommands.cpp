#include <unistd.h>

#include <memory>

#include <zlib.h>

#include "tools/Commands.h"
#include "tools/HexDump.h"
#include "tools/Numbers.h"
#include "tools/Output.h"
#include "tools/OutputFile.h"
#include "tools/Progress.h"
#include "tools/Session.h"
#include "tools/Target.h"
#include "tools/Transfer.h"
#include "tools/UsageError.h"

namespace kvx::cli {
namespace {

/// ADDR and LENGTH of a range command, checked against the address space.
std::pair<uint64_t, uint64_t> range(const Arguments& arguments) {
  const uint64_t address = parseNumber(arguments.value("ADDR"), "address");
  const uint64_t length = parseNumber(arguments.value("LENGTH"), "length");
  checkRange(address, length);
  return {address, length};
}

Action buildDump(const Arguments& arguments) {
  const auto [address, length] = range(arguments);
  const std::string path = arguments.has("out") ? arguments.value("out") : std::string();
  return [=, address = address, length = length](Session& session) {
    Transfer::checkBound(length, session.force());
    Output& output = session.output();
    // The file first: a path that cannot be written fails before the target is reached.
    std::unique_ptr<OutputFile> file =
        path.empty() || path == "-" ? nullptr : std::make_unique<OutputFile>(path);
    Target& target = session.target();
    // A bar on the terminal that shows the dump itself would be torn apart by its lines.
    Progress progress(output, "dump", length, file != nullptr || ::isatty(STDOUT_FILENO) == 0);
    if (file) {
      Transfer::read(target, address, length, progress,
                     [&file](const uint8_t* bytes, size_t count) { file->write(bytes, count); });
      file->commit();
    } else if (path == "-") {
      Transfer::read(target, address, length, progress,
                     [&output](const uint8_t* bytes, size_t count) { output.bytes(bytes, count); });
    } else {
      HexDump dump(output, address, length);
      Transfer::read(target, address, length, progress,
                     [&dump](const uint8_t* bytes, size_t count) { dump.append(bytes, count); });
      dump.finish();
    }
    progress.finish();
  };
}

Action buildFill(const Arguments& arguments) {
  const auto [address, length] = range(arguments);
  // The pattern's width is its number of bytes as written: 0xa5 is one byte, 0x00a5 two.
  const std::string text = arguments.value("PATTERN");
  const uint64_t value = parseNumber(text, "pattern");
  const bool hex = text.size() > 2 && (text[1] == 'x' || text[1] == 'X');
  unsigned width = hex ? static_cast<unsigned>((text.size() - 2 + 1) / 2) : 1;
  while (!hex && width < kMaxAccessBytes && (value >> (8 * width)) != 0) ++width;
  if (width > kMaxAccessBytes) throw UsageError("invalid pattern '" + text + "' (1 to 8 bytes)");
  uint8_t pattern[kMaxAccessBytes];
  toTargetBytes(value, pattern, width);
  return [=, address = address, length = length](Session& session) {
    Transfer::checkBound(length, session.force());
    Target& target = session.target();
    Progress progress(session.output(), "fill", length);
    Transfer::write(target, address, length, progress, [&](uint64_t offset, uint8_t* bytes, size_t count) {
      for (size_t i = 0; i < count; ++i) bytes[i] = pattern[(offset + i) % width];
    });
    progress.finish();
  };
}

Action buildCrc32(const Arguments& arguments) {
  const auto [address, length] = range(arguments);
  return [=, address = address, length = length](Session& session) {
    Transfer::checkBound(length, session.force());
    Target& target = session.target();
    uLong crc = ::crc32(0, nullptr, 0);
    Progress progress(session.output(), "crc32", length);
    Transfer::read(target, address, length, progress, [&crc](const uint8_t* bytes, size_t count) {
      crc = ::crc32(crc, bytes, static_cast<uInt>(count));
    });
    progress.finish();
    session.output().result(hexPadded(crc, 8), {{"address", address}, {"length", length}, {"crc32", crc}});
  };
}

}  // namespace

std::vector<CommandSpec> transferCommands() {
  return {
      {"dump",
       "ADDR LENGTH [--out FILE]",
       "hex dump of LENGTH bytes, or their raw bytes into FILE",
       "Reads LENGTH bytes from ADDR, in accesses of at most 8 bytes, and prints a hex-and-ASCII\n"
       "dump, 16 bytes a line, or writes the raw bytes to FILE ('-': to stdout). FILE appears\n"
       "only once every byte is in it; a failed dump leaves an existing FILE as it was. Ends with\n"
       "a line on stderr: \"N bytes in X s (Y KiB/s)\".",
       {"ADDR", "LENGTH"},
       {},
       {{"out", "FILE", "write the raw bytes to FILE instead ('-' for stdout)"}},
       true,
       buildDump},
      {"fill",
       "ADDR LENGTH PATTERN",
       "fill LENGTH bytes with a pattern of 1 to 8 bytes",
       "Writes PATTERN, repeated, over the LENGTH bytes from ADDR. The pattern is little-endian\n"
       "and as wide as it is written: 0xa5 is one byte, 0x000000a5 four; a decimal pattern\n"
       "takes as few bytes as its value needs.",
       {"ADDR", "LENGTH", "PATTERN"},
       {},
       {},
       true,
       buildFill},
      {"crc32",
       "ADDR LENGTH",
       "the CRC-32 of LENGTH bytes of target memory",
       "Reads LENGTH bytes from ADDR and prints their CRC-32, the one of zlib, gzip and\n"
       "Python's zlib.crc32.",
       {"ADDR", "LENGTH"},
       {},
       {},
       true,
       buildCrc32},
  };
}

}  // namespace kvx::cli
