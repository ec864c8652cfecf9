// dump, fill, crc32, search: ranges of any length, moved in accesses of at most 8 bytes, or of
// exactly --width bytes.

#include <unistd.h>

#include <memory>

#include "bringup/Error.h"
#include "bringup/Numbers.h"
#include "bringup/Ranges.h"
#include "bringup/file/OutputFile.h"
#include "bringup/image/ImageWriter.h"
#include "bringup/transfer/MemoryTransfers.h"
#include "bringup/transfer/WorkerMessages.h"
#include "tools/Session.h"
#include "tools/commands/Commands.h"
#include "tools/output/HexDump.h"
#include "tools/output/Output.h"
#include "tools/output/TerminalProgress.h"

namespace kvx::cli {
namespace {

using bringup::hexPadded;
using bringup::Range;

/// What a range command was asked: ADDR and LENGTH (LENGTH by default the size of the symbol
/// that ADDR names), checked against the address space and against --width.
struct RangeRequest {
  Range range;
  unsigned width = 0;
};

RangeRequest rangeRequest(const Arguments& arguments) {
  const auto where = arguments.address("ADDR");
  uint64_t length = where.length;
  if (arguments.has("LENGTH")) {
    length = bringup::parseNumber(arguments.value("LENGTH"), "length");
  } else if (where.symbol == nullptr || where.length == 0) {
    throw bringup::usageError("missing LENGTH (it may be left out only after a symbol with a size)");
  }
  RangeRequest request{bringup::checkedRange(where.address, length),
                       arguments.has("width") ? bringup::parseWidth(arguments.value("width")) : 0};
  bringup::checkAligned(request.range, request.width);
  return request;
}

/// The format of a dump's FILE: --format, else from its extension, else raw.
bringup::ImageFormat dumpFormat(const Arguments& arguments, const std::optional<std::string>& path) {
  if (arguments.has("format")) {
    const std::string& name = arguments.value("format");
    const std::optional<bringup::ImageFormat> format = bringup::parseFormat(name);
    if (!format || *format == bringup::ImageFormat::kElf) {
      throw bringup::usageError("invalid format '" + name + "' (dump writes raw, ihex or srec)");
    }
    if (!path) throw bringup::usageError("--format is the format of --out FILE, and no FILE was given");
    return *format;
  }
  return path ? bringup::formatFromExtension(*path).value_or(bringup::ImageFormat::kRaw)
              : bringup::ImageFormat::kRaw;
}

Action buildDump(const Arguments& arguments) {
  const RangeRequest request = rangeRequest(arguments);
  const std::optional<std::string> path =
      arguments.has("out") ? std::optional<std::string>(arguments.value("out")) : std::nullopt;
  if (path && path->empty()) throw bringup::usageError("invalid output file '' (a path, or '-' for stdout)");
  const bringup::ImageFormat format = dumpFormat(arguments, path);
  // A range that the format cannot hold is refused before anything is read.
  if (path)
    bringup::ImageWriter::create(format, request.range.address, request.range.length,
                                 [](const void*, size_t) {});
  return [=](Session& session) {
    const Range where = request.range;
    Output& output = session.output();
    // The file first: a path that cannot be written fails before the target is reached. What
    // kvx-ta printed before goes out first, as the file's bytes may go to stdout too.
    output.finish();
    std::unique_ptr<bringup::OutputFile> file = path ? std::make_unique<bringup::OutputFile>(*path) : nullptr;
    std::unique_ptr<bringup::ImageWriter> writer =
        file ? bringup::ImageWriter::create(
                   format, where.address, where.length,
                   [&file](const void* bytes, size_t size) { file->write(bytes, size); })
             : nullptr;
    // A bar on the terminal that shows the dump itself would be torn apart by its lines.
    const bool onTerminal = (!path || *path == "-") && ::isatty(STDOUT_FILENO) == 1;
    TerminalProgress progress(output, "dump", where.length, !onTerminal);
    std::unique_ptr<HexDump> hexDump =
        path ? nullptr : std::make_unique<HexDump>(output, where.address, where.length);
    bringup::Transfer transfer = session.transfer(progress, where.length, request.width);
    try {
      transfer.reportingHowFar("read", where.length, [&] {
        bringup::dump(transfer, where, [&](const uint8_t* bytes, size_t count) {
          if (writer) {
            writer->write(bytes, count);
          } else {
            hexDump->append(bytes, count);
          }
        });
      });
      if (hexDump) hexDump->finish();
      if (writer) writer->finish();
      if (file) file->commit();
    } catch (const bringup::Error& failure) {
      if (!file || failure.kind() == bringup::Error::Kind::kUsage) throw;
      throw failure.explained("; " + file->leftBehind(where.length));
    }
    progress.finish();
  };
}

Action buildFill(const Arguments& arguments) {
  const RangeRequest request = rangeRequest(arguments);
  const std::vector<uint8_t> pattern = bringup::parsePattern(arguments.value("PATTERN"), "pattern");
  return [=](Session& session) {
    TerminalProgress progress(session.output(), "fill", request.range.length);
    bringup::Transfer transfer = session.transfer(progress, request.range.length, request.width);
    transfer.reportingHowFar("written", request.range.length,
                             [&] { bringup::fill(transfer, request.range, pattern); });
    progress.finish();
  };
}

Action buildCrc32(const Arguments& arguments) {
  const RangeRequest request = rangeRequest(arguments);
  return [=](Session& session) {
    const Range where = request.range;
    Output& output = session.output();
    TerminalProgress progress(output, "crc32", where.length);
    bringup::Transfer transfer = session.transfer(progress, where.length, request.width);
    uint32_t crc = 0;
    transfer.reportingHowFar("read", where.length, [&] { crc = bringup::crc32(transfer, where); });
    progress.finish();
    if (output.options().worker) {
      output.text(bringup::crc32Message(crc));
      return;
    }
    output.result(hexPadded(crc, 8), {{"address", bringup::hexAddress(where.address)},
                                      {"length", where.length},
                                      {"crc32", hexPadded(crc, 8)}});
  };
}

/// The pattern of a search: PATTERN by fill's rule, --string TEXT, or --bytes HEX, exactly one.
std::vector<uint8_t> searchPattern(const Arguments& arguments) {
  const int given =
      int{arguments.has("PATTERN")} + int{arguments.has("string")} + int{arguments.has("bytes")};
  if (given != 1)
    throw bringup::usageError("search: give one pattern: PATTERN, --string TEXT or --bytes HEX");
  if (arguments.has("PATTERN")) return bringup::parsePattern(arguments.value("PATTERN"), "pattern");
  const std::string text = arguments.value(arguments.has("string") ? "string" : "bytes");
  std::vector<uint8_t> pattern(text.begin(), text.end());
  if (arguments.has("bytes")) {
    const auto bytes = bringup::parseHexBytes(text);
    if (!bytes)
      throw bringup::usageError("invalid bytes '" + text + "' (pairs of hex digits, in memory order)");
    pattern = *bytes;
  }
  if (pattern.empty() || pattern.size() > bringup::kMaxPattern) {
    throw bringup::usageError("invalid pattern of " + bringup::byteCount(pattern.size()) + " (1 to " +
                              std::to_string(bringup::kMaxPattern) + " bytes)");
  }
  return pattern;
}

Action buildSearch(const Arguments& arguments) {
  const RangeRequest request = rangeRequest(arguments);
  const std::vector<uint8_t> pattern = searchPattern(arguments);
  return [=](Session& session) {
    const Range where = request.range;
    Output& output = session.output();
    TerminalProgress progress(output, "search", where.length);
    bringup::Transfer transfer = session.transfer(progress, where.length, request.width);
    if (output.options().worker) {
      output.text(bringup::searchMessage(bringup::searchPart(transfer, where, pattern)));
      progress.finish();
      return;
    }
    std::vector<uint64_t> matches;
    transfer.reportingHowFar("read", where.length,
                             [&] { matches = bringup::search(transfer, where, pattern); });
    progress.finish();
    for (const uint64_t match : matches) {
      output.result(bringup::hexAddress(match), {{"address", bringup::hexAddress(match)}});
    }
    if (matches.empty()) {
      throw bringup::Error(bringup::Error::Kind::kTarget,
                           "search found no 0x" + bringup::hexBytes(pattern) + " in " + where.text(),
                           "the pattern does not occur there");
    }
  };
}

const Flag kWidthFlag{"width", "W", "access exactly W bytes (1, 2, 4 or 8) at a time, at multiples of W"};

}  // namespace

std::vector<CommandDefinition> transferCommands() {
  return {
      {"dump",
       "ADDR [LENGTH] [--out FILE]",
       "hex dump of LENGTH bytes, or their bytes into FILE",
       "Reads LENGTH bytes from ADDR (by default, the size of the symbol ADDR names) and prints a\n"
       "hex-and-ASCII dump, 16 bytes a line, or writes them to FILE ('-': to stdout): raw, or\n"
       "as Intel HEX or S-record with their addresses (--format, or the extension: .hex, .ihex,\n"
       ".srec, .s19, .s28, .s37), which load reads back. Accesses are at most 8 bytes, the first\n"
       "up to the next 8-byte boundary and the rest aligned (20 bytes at 0x1003 go as 5, 8 and\n"
       "7), or exactly --width bytes. A new FILE appears only once every byte is in it, and a\n"
       "failed dump leaves a replaced regular FILE as it was; a FIFO or a device is written in\n"
       "place, and a failure says how far it got. Ends with a line on stderr:\n"
       "\"N bytes in X s (Y KiB/s)\".",
       {"ADDR"},
       {"LENGTH"},
       {{"out", "FILE", "write the bytes to FILE instead ('-' for stdout)"},
        {"format", "F", "the format of FILE: raw, ihex or srec (default: from its extension, else raw)"},
        kWidthFlag},
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
       {kWidthFlag},
       true,
       buildFill},
      {"crc32",
       "ADDR [LENGTH]",
       "the CRC-32 of LENGTH bytes of target memory",
       "Reads LENGTH bytes from ADDR (by default, the size of the symbol ADDR names) and prints\n"
       "their CRC-32, the one of zlib, gzip and Python's zlib.crc32.",
       {"ADDR"},
       {"LENGTH"},
       {kWidthFlag},
       true,
       buildCrc32},
      {"search",
       "ADDR LENGTH [PATTERN]",
       "every address in a range where a pattern starts",
       "Reads LENGTH bytes from ADDR and prints every address where the pattern starts, one a\n"
       "line; exits with status 1 when there is none. The pattern is PATTERN, by fill's rule (1\n"
       "to 8 bytes, little-endian, as wide as written), or the bytes of --string TEXT, or those\n"
       "that --bytes HEX spells in memory order. Matches start at any byte, or with --width W\n"
       "only at multiples of W. With --jobs, a match across the seam of two workers' parts is\n"
       "found without reading any byte twice.",
       {"ADDR", "LENGTH"},
       {"PATTERN"},
       {{"string", "TEXT", "search for the bytes of TEXT"},
        {"bytes", "HEX", "search for these bytes, in memory order (deadbeef)"},
        kWidthFlag},
       true,
       buildSearch},
  };
}

}  // namespace kvx::cli
