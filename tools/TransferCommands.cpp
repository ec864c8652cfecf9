#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <memory>

#include <zlib.h>

#include "tools/Commands.h"
#include "tools/Failure.h"
#include "tools/HexDump.h"
#include "tools/InputFile.h"
#include "tools/Numbers.h"
#include "tools/Output.h"
#include "tools/OutputFile.h"
#include "tools/Progress.h"
#include "tools/Session.h"
#include "tools/Target.h"
#include "tools/Transfer.h"
#include "tools/UsageError.h"
#include "tools/Workers.h"

namespace kvx::cli {
namespace {

using nlohmann::json;

/// ADDR and LENGTH of a range command, checked against the address space.
std::pair<uint64_t, uint64_t> range(const Arguments& arguments) {
  const uint64_t address = parseNumber(arguments.value("ADDR"), "address");
  const uint64_t length = parseNumber(arguments.value("LENGTH"), "length");
  checkRange(address, length);
  return {address, length};
}

/// The words of a worker's command for `part`.
std::vector<std::string> partCommand(const char* name, const Workers::Part& part,
                                     std::vector<std::string> more = {}) {
  std::vector<std::string> words{name, hexAddress(part.address), std::to_string(part.length)};
  words.insert(words.end(), more.begin(), more.end());
  return words;
}

/// Reads `length` bytes from `address` with workers, and hands them to `sink` in address order.
/// The parts arrive at once and in any order, so they are put together in a scratch file first,
/// or straight in `file` when the bytes go to a file.
void readInParallel(Session& session, Progress& progress, uint64_t address, uint64_t length, unsigned jobs,
                    OutputFile* file, const Transfer::Sink& sink) {
  const std::vector<Workers::Part> parts = Workers::split(address, length, jobs);
  std::vector<uint64_t> received(parts.size(), 0);
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> scratch(file ? nullptr : std::tmpfile(), std::fclose);
  if (!file && !scratch) throw fileError("create", "a scratch file");
  Workers::run(
      session, progress, parts,
      [](const Workers::Part& part) {
        return partCommand("dump", part, {"--out", "-"});
      },
      [&](size_t index, const uint8_t* bytes, size_t size) {
        const uint64_t offset = parts[index].address - address + received[index];
        received[index] += size;
        if (file) {
          file->writeAt(offset, bytes, size);
        } else if (::pwrite(::fileno(scratch.get()), bytes, size, static_cast<off_t>(offset)) !=
                   static_cast<ssize_t>(size)) {
          throw fileError("write", "a scratch file");
        }
      });
  for (size_t index = 0; index < parts.size(); ++index) {
    if (received[index] != parts[index].length) {
      throw Failure("cannot read " + hexAddress(parts[index].address), "its worker delivered too few bytes");
    }
  }
  std::vector<uint8_t> chunk(64 * 1024);
  for (uint64_t done = 0; !file && done < length;) {
    const size_t size = static_cast<size_t>(std::min<uint64_t>(chunk.size(), length - done));
    if (::pread(::fileno(scratch.get()), chunk.data(), size, static_cast<off_t>(done)) !=
        static_cast<ssize_t>(size)) {
      throw fileError("read", "a scratch file");
    }
    sink(chunk.data(), size);
    done += size;
  }
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
    // A bar on the terminal that shows the dump itself would be torn apart by its lines.
    Progress progress(output, "dump", length, file != nullptr || ::isatty(STDOUT_FILENO) == 0);
    std::unique_ptr<HexDump> dump =
        path.empty() ? std::make_unique<HexDump>(output, address, length) : nullptr;
    const Transfer::Sink sink = [&](const uint8_t* bytes, size_t count) {
      if (file) {
        file->write(bytes, count);
      } else if (dump) {
        dump->append(bytes, count);
      } else {
        output.bytes(bytes, count);
      }
    };
    const unsigned jobs = session.jobsFor(length);
    if (jobs > 1) {
      readInParallel(session, progress, address, length, jobs, file.get(), sink);
    } else {
      Transfer::read(session.target(), address, length, progress, sink);
    }
    if (dump) dump->finish();
    if (file) file->commit();
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
    Progress progress(session.output(), "fill", length);
    const unsigned jobs = session.jobsFor(length);
    if (jobs > 1) {
      // Each worker's pattern starts where the range's pattern is at its part.
      Workers::run(
          session, progress, Workers::split(address, length, jobs),
          [&](const Workers::Part& part) {
            std::string rotated = "0x";
            for (unsigned i = width; i-- > 0;)
              rotated += hexPadded(pattern[(part.address - address + i) % width], 2).substr(2);
            return partCommand("fill", part, {rotated});
          },
          [](size_t, const uint8_t*, size_t) {});
    } else {
      Transfer::write(session.target(), address, length, progress,
                      [&](uint64_t offset, uint8_t* bytes, size_t count) {
                        for (size_t i = 0; i < count; ++i) bytes[i] = pattern[(offset + i) % width];
                      });
    }
    progress.finish();
  };
}

Action buildCrc32(const Arguments& arguments) {
  const auto [address, length] = range(arguments);
  return [=, address = address, length = length](Session& session) {
    Transfer::checkBound(length, session.force());
    uLong crc = ::crc32(0, nullptr, 0);
    Progress progress(session.output(), "crc32", length);
    const unsigned jobs = session.jobsFor(length);
    if (jobs > 1) {
      // Each worker's CRC of its part, joined in address order as zlib joins them.
      const std::vector<Workers::Part> parts = Workers::split(address, length, jobs);
      std::vector<std::string> results(parts.size());
      Workers::run(
          session, progress, parts, [](const Workers::Part& part) { return partCommand("crc32", part); },
          [&](size_t index, const uint8_t* bytes, size_t size) {
            results[index].append(reinterpret_cast<const char*>(bytes), size);
          });
      for (size_t index = 0; index < parts.size(); ++index) {
        const json result = json::parse(results[index], nullptr, false);
        if (!result.is_object() || !result.contains("crc32")) {
          throw Failure("cannot compute the CRC-32 of " + hexAddress(parts[index].address),
                        "its worker gave no result");
        }
        crc = ::crc32_combine(crc, result["crc32"].get<uLong>(), static_cast<z_off_t>(parts[index].length));
      }
    } else {
      Transfer::read(session.target(), address, length, progress, [&crc](const uint8_t* bytes, size_t count) {
        crc = ::crc32(crc, bytes, static_cast<uInt>(count));
      });
    }
    progress.finish();
    session.output().result(hexPadded(crc, 8), {{"address", address}, {"length", length}, {"crc32", crc}});
  };
}

}  // namespace

std::vector<CommandDefinition> transferCommands() {
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
