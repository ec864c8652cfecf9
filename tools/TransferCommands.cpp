#include "tools/Commands.h"

#include <unistd.h>

#include <fstream>
#include <iostream>
#include <stdexcept>

#include "tools/HexDump.h"
#include "tools/InputFile.h"
#include "tools/Numbers.h"
#include "tools/Progress.h"
#include "tools/Session.h"
#include "tools/Target.h"
#include "tools/Transfer.h"

namespace kvx::cli {
namespace {

Action buildDump(const Arguments& arguments) {
  const uint64_t address = parseNumber(arguments.value("ADDR"), "address");
  const uint64_t length = parseNumber(arguments.value("LENGTH"), "length");
  checkRange(address, length);
  const std::string path = arguments.has("out") ? arguments.value("out") : std::string();
  return [=](Session& session) {
    // The file first: a path that cannot be written fails before the target is reached.
    std::ofstream file;
    if (!path.empty()) {
      file.open(path, std::ios::binary | std::ios::trunc);
      if (!file) {
        throw fileError("write", path);
      }
    }
    Target& target = session.target();
    // A bar on the terminal that shows the dump itself would be torn apart by its lines.
    const bool barAllowed = !path.empty() || ::isatty(STDOUT_FILENO) == 0;
    Progress progress("dump", length, "", barAllowed);
    if (path.empty()) {
      HexDump dump(std::cout, address, length);
      Transfer::read(target, address, length, progress,
                     [&dump](const uint8_t* bytes, size_t count) { dump.append(bytes, count); });
      dump.finish();
    } else {
      Transfer::read(target, address, length, progress, [&file](const uint8_t* bytes, size_t count) {
        file.write(reinterpret_cast<const char*>(bytes), static_cast<std::streamsize>(count));
      });
      file.close();
      if (!file) {
        throw fileError("write", path);
      }
    }
    progress.finish();
  };
}

Action buildLoad(const Arguments& arguments) {
  const std::string path = arguments.value("FILE");
  const uint64_t address = parseNumber(arguments.value("ADDR"), "address");
  const bool verify = arguments.has("verify");
  return [=](Session& session) {
    const std::vector<uint8_t> data = readFile(path);
    checkRange(address, data.size());
    Target& target = session.target();
    {
      Progress progress("load", data.size());
      Transfer::write(target, address, data, progress);
      progress.finish();
    }
    if (verify) {
      Progress progress("verify", data.size(), "verified ");
      if (const auto mismatch = Transfer::verify(target, address, data, progress)) {
        throw std::runtime_error("verify failed at " + hexAddress(mismatch->address) + ": wrote " +
                                 hexPadded(mismatch->written, 2) + ", read back " +
                                 hexPadded(mismatch->read, 2));
      }
      progress.finish();
    }
  };
}

}  // namespace

std::vector<CommandSpec> transferCommands() {
  return {
      {"dump",
       "ADDR LENGTH [--out FILE]",
       "hex dump of LENGTH bytes, or their raw bytes into FILE",
       "Reads LENGTH bytes from ADDR, in accesses of at most 8 bytes, and prints a hex-and-ASCII\n"
       "dump, 16 bytes a line, or writes the raw bytes to FILE. Ends with a line on stderr:\n"
       "\"N bytes in X s (Y KiB/s)\".",
       {"ADDR", "LENGTH"},
       {},
       {{"out", "FILE", "write the raw bytes to FILE instead"}},
       true,
       buildDump},
      {"load",
       "FILE ADDR [--verify]",
       "write FILE into target memory at ADDR",
       "Writes the bytes of FILE to target memory from ADDR on, in accesses of at most 8 bytes.\n"
       "With --verify, reads them back and reports the first address that differs. Each pass\n"
       "ends with a line on stderr: \"N bytes in X s (Y KiB/s)\".",
       {"FILE", "ADDR"},
       {},
       {{"verify", nullptr, "read the bytes back and compare"}},
       true,
       buildLoad},
  };
}

}  // namespace kvx::cli
