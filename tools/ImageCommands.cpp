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

namespace kvx::cli {
namespace {

/// FILE, ADDR and --format of an image command, checked.
struct ImageArguments {
  std::string path;
  std::optional<uint64_t> address;
  std::optional<Image::Format> format;
};

ImageArguments imageArguments(const Arguments& arguments) {
  ImageArguments result{arguments.value("FILE"), std::nullopt, std::nullopt};
  if (arguments.has("ADDR")) result.address = parseNumber(arguments.value("ADDR"), "address");
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
void eachPiece(Image& image, Session& session, const Image::Visitor& move) {
  uint64_t moved = 0;
  image.visit([&](uint64_t address, const uint8_t* bytes, size_t count) {
    moved += count;
    Transfer::checkBound(moved, session.force());
    move(address, bytes, count);
  });
}

Transfer::Source sourceOf(const uint8_t* bytes) {
  return [bytes](uint64_t offset, uint8_t* out, size_t count) { std::memcpy(out, bytes + offset, count); };
}

/// Reads the image's bytes back from the target and throws Failure at the first that differs,
/// saying what the file holds and what the target does in the words given.
void compare(Image& image, Session& session, const std::string& fileHas, const std::string& targetHas) {
  Target& target = session.target();
  Progress progress(session.output(), "verify", image.size());
  eachPiece(image, session, [&](uint64_t address, const uint8_t* bytes, size_t count) {
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
    Target& target = session.target();
    {
      Progress progress(session.output(), "load", file->size());
      eachPiece(*file, session, [&](uint64_t address, const uint8_t* bytes, size_t count) {
        Transfer::write(target, address, count, progress, sourceOf(bytes));
      });
      progress.finish();
    }
    if (verify) compare(*file, session, "wrote ", "read back ");
  };
}

Action buildVerify(const Arguments& arguments) {
  const ImageArguments image = imageArguments(arguments);
  return
      [=](Session& session) { compare(*openImage(image, session), session, "the file has ", "the target "); };
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

}  // namespace

std::vector<CommandSpec> imageCommands() {
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
       {kFormatFlag, {"verify", nullptr, "read the bytes back and compare"}},
       true,
       buildLoad},
      {"verify",
       "FILE [ADDR] [options]",
       "compare target memory with an image file",
       verifyDescription.c_str(),
       {"FILE"},
       {"ADDR"},
       {kFormatFlag},
       true,
       buildVerify},
  };
}

}  // namespace kvx::cli
