// load, verify: image files (raw, Intel HEX, S-record, ELF) to and against target memory.

#include <algorithm>
#include <cstring>
#include <memory>
#include <optional>

#include "bringup/Error.h"
#include "bringup/Numbers.h"
#include "bringup/transfer/WorkerMessages.h"
#include "bringup/transfer/Workers.h"
#include "tools/Image.h"
#include "tools/Session.h"
#include "tools/commands/Commands.h"
#include "tools/output/Output.h"
#include "tools/output/TerminalProgress.h"

namespace kvx::cli {
namespace {

using bringup::Range;

/// FILE, ADDR, --format and a worker's --part of an image command, checked.
struct ImageArguments {
  std::string path;
  std::optional<uint64_t> address;
  std::optional<Image::Format> format;
  /// A worker's share: only the image's bytes in this range.
  std::optional<Range> part;
};

ImageArguments imageArguments(const Arguments& arguments) {
  ImageArguments result{arguments.value("FILE"), std::nullopt, std::nullopt, std::nullopt};
  if (arguments.has("ADDR")) result.address = bringup::parseNumber(arguments.value("ADDR"), "address");
  if (arguments.has("part")) {
    result.part = bringup::parsePartOption(arguments.value("part"));
    if (!result.part) throw bringup::usageError("invalid part '" + arguments.value("part") + "'");
  }
  if (arguments.has("format")) {
    const std::string& name = arguments.value("format");
    result.format = Image::parseFormat(name);
    if (!result.format) throw bringup::usageError("invalid format '" + name + "' (raw, ihex, srec or elf)");
  }
  return result;
}

/// Opens the image, its warnings shown as such, and checks its size against the bound before
/// anything is reached.
std::unique_ptr<Image> openImage(const ImageArguments& arguments, Session& session) {
  const std::string& path = arguments.path;
  Output& output = session.output();
  auto image = std::make_unique<Image>(
      path, arguments.format, arguments.address,
      [&output, &path](const std::string& warning) { output.warning(path + ": " + warning); });
  if (image->size()) bringup::checkTransferBound(*image->size(), session.force());
  return image;
}

/// Calls `move` with each piece of `image`, stopping a stream at the bound as soon as it passes
/// it. A worker's `part` keeps only the bytes in it.
void eachPiece(Image& image, const bringup::Transfer& transfer, const std::optional<Range>& part,
               const Image::Visitor& move) {
  uint64_t moved = 0;
  image.visit([&](uint64_t address, const uint8_t* bytes, size_t count) {
    moved += count;
    transfer.checkBound(moved);
    if (!part) return move(address, bytes, count);
    // Compared by last address, which a piece at the top of the address space has too.
    const uint64_t first = std::max(address, part->address);
    const uint64_t last = std::min(address + (count - 1), part->last());
    if (count != 0 && first <= last)
      move(first, bytes + (first - address), static_cast<size_t>(last - first + 1));
  });
}

/// The image's bytes shared out between `jobs` workers: address ranges that hold about as many
/// bytes each, cut at 8-byte boundaries. Reads the image through once.
std::vector<Range> shares(Image& image, const bringup::Transfer& transfer, unsigned jobs) {
  std::vector<Range> spans;
  eachPiece(image, transfer, std::nullopt, [&spans](uint64_t address, const uint8_t*, size_t count) {
    if (!spans.empty() && spans.back().address + spans.back().length == address) {
      spans.back().length += count;
    } else {
      spans.push_back({address, count});
    }
  });
  uint64_t total = 0;
  for (const auto& span : spans) total += span.length;
  std::vector<Range> parts;
  if (spans.empty()) return parts;
  uint64_t start = spans.front().address;
  for (unsigned k = 1; k < jobs; ++k) {
    // The address of the byte that ends the k-th share, down to an 8-byte boundary.
    uint64_t index = total / jobs * k;
    uint64_t cut = start;
    for (const auto& span : spans) {
      if (index < span.length) {
        cut = (span.address + index) / bringup::kMaxAccessBytes * bringup::kMaxAccessBytes;
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

/// The words that open the image in `arguments` as the whole transfer reads it.
std::vector<std::string> imageWords(const ImageArguments& arguments, const Image& image) {
  std::vector<std::string> words{arguments.path};
  if (arguments.address) words.push_back(bringup::hexAddress(*arguments.address));
  const char* const formats[] = {"raw", "ihex", "srec", "elf"};
  words.insert(words.end(), {"--format", formats[static_cast<int>(image.format())]});
  return words;
}

bringup::Transfer::Source sourceOf(const uint8_t* bytes) {
  return [bytes](uint64_t offset, uint8_t* out, size_t count) { std::memcpy(out, bytes + offset, count); };
}

/// Moves the image between the target and this process, or its workers, as `command` ("load" or
/// "verify") says; `move` moves one piece in this process.
void moveImage(Image& image, const ImageArguments& arguments, bringup::Transfer& transfer,
               const char* command, const Image::Visitor& move) {
  if (transfer.options().jobs > 1 && image.rereadable() && !arguments.part) {
    bringup::runWorkers(
        transfer, shares(image, transfer, transfer.options().jobs),
        [&](const Range& part) {
          return bringup::imagePartCommand(command, imageWords(arguments, image), part);
        },
        [](size_t, const uint8_t*, size_t) {});
    return;
  }
  eachPiece(image, transfer, arguments.part, move);
}

/// Reads the image's bytes back from the target and throws at the first that differs, saying
/// what the file holds and what the target does in the words given.
void compare(Image& image, const ImageArguments& arguments, Session& session, const std::string& fileHas,
             const std::string& targetHas) {
  TerminalProgress progress(session.output(), "verify", image.size());
  bringup::Transfer transfer = session.transfer(progress, arguments.part ? 0 : image.size().value_or(0));
  moveImage(image, arguments, transfer, "verify", [&](uint64_t address, const uint8_t* bytes, size_t count) {
    if (const auto mismatch = transfer.verify({address, count}, sourceOf(bytes))) {
      throw bringup::Error(bringup::Error::Kind::kTarget,
                           "verify failed at " + bringup::hexAddress(mismatch->address),
                           fileHas + bringup::hexPadded(mismatch->expected, 2) + ", " + targetHas +
                               bringup::hexPadded(mismatch->found, 2));
    }
  });
  progress.finish("verified ");
}

Action buildLoad(const Arguments& arguments) {
  const ImageArguments image = imageArguments(arguments);
  const bool verify = arguments.has("verify");
  return [=](Session& session) {
    Output& output = session.output();
    const std::unique_ptr<Image> file = openImage(image, session);
    if (verify && !file->rereadable()) {
      throw bringup::usageError("--verify reads '" + image.path +
                                "' again, which a pipe or a device cannot give");
    }
    {
      TerminalProgress progress(output, "load", file->size());
      bringup::Transfer transfer = session.transfer(progress, image.part ? 0 : file->size().value_or(0));
      try {
        moveImage(*file, image, transfer, "load", [&](uint64_t address, const uint8_t* bytes, size_t count) {
          transfer.write({address, count}, sourceOf(bytes));
        });
      } catch (const bringup::Error& failure) {
        if (failure.kind() == bringup::Error::Kind::kUsage) throw;
        throw failure.explained("; " + std::to_string(progress.done()) + " bytes of the image were written");
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
  return {
      {"load",
       "FILE [ADDR] [options]",
       "write an image file (raw, HEX, S-record, ELF) to memory",
       std::string("Writes the image in FILE to target memory, in accesses of at most 8 bytes.\n") +
           kFormats +
           "With --verify, reads the bytes back afterwards, reading FILE again, and reports the first\n"
           "address that differs. Each pass ends with a line on stderr: \"N bytes in X s (Y KiB/s)\".",
       {"FILE"},
       {"ADDR"},
       {kFormatFlag, {"verify", nullptr, "read the bytes back and compare"}, kPartFlag},
       true,
       buildLoad},
      {"verify",
       "FILE [ADDR] [options]",
       "compare target memory with an image file",
       std::string("Compares target memory with the image in FILE and reports the first address that\n"
                   "differs, with both values; exits with status 1 then.\n") +
           kFormats + "Ends with a line on stderr: \"verified N bytes in X s (Y KiB/s)\".",
       {"FILE"},
       {"ADDR"},
       {kFormatFlag, kPartFlag},
       true,
       buildVerify},
  };
}

}  // namespace kvx::cli
