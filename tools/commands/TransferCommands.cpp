// dump, fill, crc32: ranges of any length, moved in accesses of at most 8 bytes.

#include <unistd.h>

#include <memory>

#include "bringup/Error.h"
#include "bringup/Numbers.h"
#include "bringup/Ranges.h"
#include "bringup/file/OutputFile.h"
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

/// ADDR and LENGTH of a range command, checked against the address space.
Range range(const Arguments& arguments) {
  return bringup::checkedRange(bringup::parseNumber(arguments.value("ADDR"), "address"),
                               bringup::parseNumber(arguments.value("LENGTH"), "length"));
}

Action buildDump(const Arguments& arguments) {
  const Range where = range(arguments);
  const std::optional<std::string> path =
      arguments.has("out") ? std::optional<std::string>(arguments.value("out")) : std::nullopt;
  if (path && path->empty()) throw bringup::usageError("invalid output file '' (a path, or '-' for stdout)");
  return [=](Session& session) {
    Output& output = session.output();
    // The file first: a path that cannot be written fails before the target is reached. What
    // kvx-ta printed before goes out first, as the file's bytes may go to stdout too.
    output.finish();
    std::unique_ptr<bringup::OutputFile> file = path ? std::make_unique<bringup::OutputFile>(*path) : nullptr;
    // A bar on the terminal that shows the dump itself would be torn apart by its lines.
    const bool onTerminal = (!path || *path == "-") && ::isatty(STDOUT_FILENO) == 1;
    TerminalProgress progress(output, "dump", where.length, !onTerminal);
    std::unique_ptr<HexDump> hexDump =
        path ? nullptr : std::make_unique<HexDump>(output, where.address, where.length);
    bringup::Transfer transfer = session.transfer(progress, where.length);
    try {
      transfer.reportingHowFar("read", where.length, [&] {
        bringup::dump(transfer, where, [&](const uint8_t* bytes, size_t count) {
          if (file) {
            file->write(bytes, count);
          } else {
            hexDump->append(bytes, count);
          }
        });
      });
      if (hexDump) hexDump->finish();
      if (file) file->commit();
    } catch (const bringup::Error& failure) {
      if (!file || failure.kind() == bringup::Error::Kind::kUsage) throw;
      throw failure.explained("; " + file->leftBehind(where.length));
    }
    progress.finish();
  };
}

Action buildFill(const Arguments& arguments) {
  const Range where = range(arguments);
  const std::vector<uint8_t> pattern = bringup::parsePattern(arguments.value("PATTERN"), "pattern");
  return [=](Session& session) {
    TerminalProgress progress(session.output(), "fill", where.length);
    bringup::Transfer transfer = session.transfer(progress, where.length);
    transfer.reportingHowFar("written", where.length, [&] { bringup::fill(transfer, where, pattern); });
    progress.finish();
  };
}

Action buildCrc32(const Arguments& arguments) {
  const Range where = range(arguments);
  return [=](Session& session) {
    Output& output = session.output();
    TerminalProgress progress(output, "crc32", where.length);
    bringup::Transfer transfer = session.transfer(progress, where.length);
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

}  // namespace

std::vector<CommandDefinition> transferCommands() {
  return {
      {"dump",
       "ADDR LENGTH [--out FILE]",
       "hex dump of LENGTH bytes, or their raw bytes into FILE",
       "Reads LENGTH bytes from ADDR, in accesses of at most 8 bytes (the first up to the next\n"
       "8-byte boundary, the rest aligned: 20 bytes at 0x1003 go as 5, 8 and 7), and prints a\n"
       "hex-and-ASCII dump, 16 bytes a line, or writes the raw bytes to FILE ('-': to stdout).\n"
       "A new FILE appears only once every byte is in it, and a failed dump leaves an existing\n"
       "regular FILE as it was. Ends with a line on stderr: \"N bytes in X s (Y KiB/s)\".",
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
