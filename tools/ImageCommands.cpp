#include <algorithm>
#include <cstring>
#include <memory>
#include <optional>

#include "tools/Commands.h"
#include "tools/Failure.h"
#include "tools/Image.h"
#include "tools/Numbers.h"
#include "tools/Output.h"
#include "tools/Progress.h"
#include "tools/Session.h"
#include "tools/Transfer.h"
#include "tools/UsageError.h"
#include "tools/Workers.h"

namespace kvx::cli {
namespace {

/// FILE, ADDR, --format and a worker's --part of an image command, checked.
struct ImageArguments {
  std::string path;
  std::optional<uint64_t> address;
  std::optional<Image::Format> format;
  /// A worker's share: only the image's bytes at the addresses FIRST to LAST.
  std::optional<std::pair<uint64_t, uint64_t>> part;
};

ImageArguments imageArguments(const Arguments& arguments) {
  ImageArguments result{arguments.value("FILE"), std::nullopt, std::nullopt, std::nullopt};
  if (arguments.has("ADDR")) result.address = parseNumber(arguments.value("ADDR"), "address");
  if (arguments.has("part")) {
    const std::string& part = arguments.value("part");
    const size_t colon = part.find(':');
    result.part = {parseNumber(part.substr(0, colon), "part"), parseNumber(part.substr(colon + 1), "part")};
  }
  if (arguments.has("format")) {
    const std::string& name = arguments.value("format");
    result.format = Image::parseFormat(name);
    if (!result.format) throw UsageError("invalid format '" + name + "' (raw, ihex, srec or elf)");
  }
  return result;
}

/// Opens the image, its warnings shown as informational lines, and checks its size against the
/// bound before anything is reached.
std::unique_ptr<Image> openImage(const ImageArguments& arguments, Session& session) {
  Output& output = session.output();
  const std::string& path = arguments.path;
  auto image = std::make_unique<Image>(
      path, arguments.format, arguments.address,
      [&output, &path](const std::string& warning) { output.info(path + ": " + warning); });
  if (image->size()) Transfer::checkBound(*image->size(), session.force());
  return image;
}

/// Calls `move` with each piece of `image`, stopping a stream at the bound as soon as it passes it.
/// A worker's `part` keeps only the bytes at the addresses from its first to its last.
void eachPiece(Image& image, Session& session, const std::optional<std::pair<uint64_t, uint64_t>>& part,
               const Image::Visitor& move) {
  uint64_t moved = 0;
  image.visit([&](uint64_t address, const uint8_t* bytes, size_t count) {
    moved += count;
    Transfer::checkBound(moved, session.force());
    if (!part) return move(address, bytes, count);
    // Compared by last address, which a piece at the top of the address space has too.
    const uint64_t first = std::max(address, part->first);
    const uint64_t last = std::min(address + (count - 1), part->second);
    if (count != 0 && first <= last)
      move(first, bytes + (first - address), static_cast<size_t>(last - first + 1));
  });
}

/// The image's bytes shared out between `jobs` workers: address ranges that hold about as many
/// bytes each, cut at 8-byte boundaries. Reads the image through once.
std::vector<Workers::Part> shares(Image& image, Session& session, unsigned jobs) {
  std::vector<Workers::Part> spans;
  eachPiece(image, session, std::nullopt, [&spans](uint64_t address, const uint8_t*, size_t count) {
    if (!spans.empty() && spans.back().address + spans.back().length == address) {
      spans.back().length += count;
    } else {
      spans.push_back({address, count});
    }
  });
  uint64_t total = 0;
  for (const auto& span : spans) total += span.length;
  std::vector<Workers::Part> parts;
  if (spans.empty()) return parts;
  uint64_t start = spans.front().address;
  for (unsigned k = 1; k < jobs; ++k) {
    // The address of the byte that ends the k-th share, down to an 8-byte boundary.
    uint64_t index = total / jobs * k;
    uint64_t cut = start;
    for (const auto& span : spans) {
      if (index < span.length) {
        cut = (span.address + index) / kMaxAccessBytes * kMaxAccessBytes;
        break;
      }
      index -= span.length;
    }
    if (cut <= start) continue;
    parts.push_back({start, cut - start});
    start = cut;
  }
  parts.push_back({start, spans.back().address + spans.back().length - start});
  return parts;
}

/// The words of a worker's load or verify of `part` of the image in `arguments`.
std::vector<std::string> partCommand(const char* name, const ImageArguments& arguments, const Image& image,
                                     const Workers::Part& part) {
  std::vector<std::string> words{name, arguments.path};
  if (arguments.address) words.push_back(hexAddress(*arguments.address));
  const char* const formats[] = {"raw", "ihex", "srec", "elf"};
  words.insert(words.end(), {"--format", formats[static_cast<int>(image.format())], "--part",
                             hexAddress(part.address) + ":" + hexAddress(part.address + (part.length - 1))});
  return words;
}

Transfer::Source sourceOf(const uint8_t* bytes) {
  return [bytes](uint64_t offset, uint8_t* out, size_t count) { std::memcpy(out, bytes + offset, count); };
}

/// Reads the image's bytes back from the target and throws Failure at the first that differs,
/// saying what the file holds and what the target does in the words given.
void compare(Image& image, const ImageArguments& arguments, Session& session, const std::string& fileHas,
             const std::string& targetHas) {
  Progress progress(session.output(), "verify", image.size());
  const unsigned jobs =
      image.rereadable() && image.size() && !arguments.part ? session.jobsFor(*image.size()) : 1;
  if (jobs > 1) {
    Workers::run(
        session, progress, shares(image, session, jobs),
        [&](const Workers::Part& part) { return partCommand("verify", arguments, image, part); },
        [](size_t, const uint8_t*, size_t) {});
    progress.finish("verified ");
    return;
  }
  Target& target = session.target();
  eachPiece(image, session, arguments.part, [&](uint64_t address, const uint8_t* bytes, size_t count) {
    if (const auto mismatch = Transfer::verify(target, address, count, progress, sourceOf(bytes))) {
      throw Failure(
          "verify failed at " + hexAddress(mismatch->address),
          fileHas + hexPadded(mismatch->expected, 2) + ", " + targetHas + hexPadded(mismatch->found, 2));
    }
  });
  progress.finish("verified ");
}

Action buildLoad(const Arguments& arguments) {
  const ImageArguments image = imageArguments(arguments);
  const bool verify = arguments.has("verify");
  return [=](Session& session) {
    const std::unique_ptr<Image> file = openImage(image, session);
    if (verify && !file->rereadable()) {
      throw UsageError("--verify reads '" + image.path + "' again, which a pipe or a device cannot give");
    }
    {
      Progress progress(session.output(), "load", file->size());
      const unsigned jobs =
          file->rereadable() && file->size() && !image.part ? session.jobsFor(*file->size()) : 1;
      if (jobs > 1) {
        Workers::run(
            session, progress, shares(*file, session, jobs),
            [&](const Workers::Part& part) { return partCommand("load", image, *file, part); },
            [](size_t, const uint8_t*, size_t) {});
      } else {
        Target& target = session.target();
        eachPiece(*file, session, image.part, [&](uint64_t address, const uint8_t* bytes, size_t count) {
          Transfer::write(target, address, count, progress, sourceOf(bytes));
        });
      }
      progress.finish();
    }
    if (verify) compare(*file, image, session, "wrote ", "read back ");
  };
}

Action buildVerify(const Arguments& arguments) {
  const ImageArguments image = imageArguments(arguments);
  return [=](Session& session) {
    compare(*openImage(image, session), image, session, "the file has ", "the target ");
  };
}

const char* const kFormats =
    "The format is found from the content: ELF by its magic number, S-record when the first\n"
    "non-blank line starts with S0 to S9, Intel HEX when it starts with ':', raw binary\n"
    "otherwise; --format names it instead. Raw binary goes to ADDR, which it needs. HEX,\n"
    "S-record and ELF go to the addresses they hold, each moved by ADDR when it is given (an\n"
    "offset, added). Of an ELF file, each PT_LOAD segment goes to its physical address\n"
    "(p_paddr), p_filesz bytes of it from the file; the rest of p_memsz, such as .bss, is\n"
    "left as it is. FILE is read in pieces of 64 KiB, so it may be of any size; raw binary may\n"
    "come from a pipe or a device, the other formats must be regular files. More than 256 MiB\n"
    "needs --force; a stream stops with that failure once it passes the bound.\n";

const Flag kFormatFlag{"format", "F",
                       "the format of FILE: raw, ihex, srec or elf (default: from its content)"};
/// A worker's share of the image: FIRST:LAST, the addresses of the bytes it moves.
const Flag kPartFlag{"part", "FIRST:LAST", nullptr};

}  // namespace

std::vector<CommandDefinition> imageCommands() {
  static const std::string loadDescription =
      std::string("Writes the image in FILE to target memory, in accesses of at most 8 bytes.\n") + kFormats +
      "With --verify, reads the bytes back afterwards, reading FILE again, and reports the first\n"
      "address that differs. Each pass ends with a line on stderr: \"N bytes in X s (Y KiB/s)\".";
  static const std::string verifyDescription =
      std::string(
          "Compares target memory with the image in FILE and reports the first address that\n"
          "differs, with both values; exits with status 1 then.\n") +
      kFormats + "Ends with a line on stderr: \"verified N bytes in X s (Y KiB/s)\".";
  return {
      {"load",
       "FILE [ADDR] [options]",
       "write an image file (raw, HEX, S-record, ELF) to memory",
       loadDescription.c_str(),
       {"FILE"},
       {"ADDR"},
       {kFormatFlag, {"verify", nullptr, "read the bytes back and compare"}, kPartFlag},
       true,
       buildLoad},
      {"verify",
       "FILE [ADDR] [options]",
       "compare target memory with an image file",
       verifyDescription.c_str(),
       {"FILE"},
       {"ADDR"},
       {kFormatFlag, kPartFlag},
       true,
       buildVerify},
  };
}

}  // namespace kvx::cli
