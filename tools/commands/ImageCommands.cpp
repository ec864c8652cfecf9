// load, verify: image files (raw, Intel HEX, S-record, ELF) to and against target memory.

#include <memory>
#include <optional>

#include "bringup/Error.h"
#include "bringup/Numbers.h"
#include "bringup/Target.h"
#include "bringup/transfer/ImageTransfers.h"
#include "bringup/transfer/WorkerMessages.h"
#include "tools/Session.h"
#include "tools/commands/Commands.h"
#include "tools/output/Output.h"
#include "tools/output/TerminalProgress.h"

namespace kvx::cli {
namespace {

using bringup::Range;

/// What an image command was asked: the image, and a worker's --part.
struct ImageRequest {
  bringup::ImageSource source;
  /// A worker's share: only the image's bytes in this range.
  std::optional<Range> part;
};

ImageRequest imageRequest(const Arguments& arguments) {
  ImageRequest request;
  request.source.path = arguments.value("FILE");
  if (request.source.path.empty()) throw bringup::usageError("invalid file '' (a path, or '-' for stdin)");
  if (arguments.has("ADDR"))
    request.source.options.address = bringup::parseNumber(arguments.value("ADDR"), "address");
  if (arguments.has("format")) {
    const std::string& name = arguments.value("format");
    request.source.options.format = bringup::parseFormat(name);
    if (!request.source.options.format) {
      throw bringup::usageError("invalid format '" + name + "' (" + bringup::formatNames() + ")");
    }
  }
  request.source.options.virtualAddresses = arguments.has("vaddr");
  request.source.options.width = arguments.has("width") ? bringup::parseWidth(arguments.value("width")) : 0;
  if (arguments.has("part")) {
    request.part = bringup::parsePartOption(arguments.value("part"));
    if (!request.part) throw bringup::usageError("invalid part '" + arguments.value("part") + "'");
  }
  return request;
}

/// A transfer of the image on the session's target, with the request's width.
bringup::Transfer transferOf(Session& session, bringup::Progress& progress, const ImageRequest& request,
                             const bringup::Image& image) {
  return session.transfer(progress, request.part ? 0 : image.size().value_or(0),
                          request.source.options.width);
}

std::unique_ptr<bringup::Image> openImage(Session& session, const ImageRequest& request) {
  Output& output = session.output();
  const std::string path = request.source.path;
  bringup::NoProgress none;
  return bringup::openImage(
      request.source, session.transfer(none, 0),
      [&output, path](const std::string& warning) { output.warning(path + ": " + warning); });
}

/// Reads the image's bytes back from the target and fails at the first that differs.
void compare(Session& session, bringup::Image& image, const ImageRequest& request, const std::string& fileHas,
             const std::string& targetHas) {
  TerminalProgress progress(session.output(), "verify", image.size());
  bringup::Transfer transfer = transferOf(session, progress, request, image);
  bringup::verifyImage(transfer, image, request.source, request.part, fileHas, targetHas);
  progress.finish("verified ");
}

Action buildLoad(const Arguments& arguments) {
  const ImageRequest request = imageRequest(arguments);
  const bool verify = arguments.has("verify");
  const bool start = arguments.has("start");
  return [=](Session& session) {
    const std::unique_ptr<bringup::Image> image = openImage(session, request);
    if (verify && !image->rereadable()) {
      throw bringup::usageError("--verify reads '" + request.source.path +
                                "' again, which a pipe or a device cannot give");
    }
    if (start && !image->rereadable()) {
      throw bringup::usageError(
          "--start needs the entry point before the load, and a stream gives it only at "
          "its end: load '" +
          request.source.path + "' from a file");
    }
    if (start && !image->entryPoint()) {
      throw bringup::usageError("--start: '" + request.source.path + "' has no entry point");
    }
    {
      TerminalProgress progress(session.output(), "load", image->size());
      bringup::Transfer transfer = transferOf(session, progress, request, *image);
      transfer.reportingHowFar("written", image->size(),
                               [&] { bringup::loadImage(transfer, *image, request.source, request.part); });
      nlohmann::json entry;
      if (image->entryPoint()) entry["entry_point"] = bringup::hexAddress(*image->entryPoint());
      progress.finish("", entry);
    }
    if (verify) compare(session, *image, request, "wrote ", "read back ");
    if (image->entryPoint() && !request.part) {
      const std::string entry = bringup::hexAddress(*image->entryPoint());
      if (start) {
        session.target().writeRegister("pc", *image->entryPoint());
        session.output().info("started: pc = " + entry, {{"pc", entry}});
      } else {
        session.output().info("entry point " + entry, {{"entry_point", entry}});
      }
    }
  };
}

Action buildVerify(const Arguments& arguments) {
  const ImageRequest request = imageRequest(arguments);
  return [=](Session& session) {
    const std::unique_ptr<bringup::Image> image = openImage(session, request);
    compare(session, *image, request, "the file has ", "the target ");
  };
}

const char* const kFormats =
    "The format is found from the content: ELF by its magic number, S-record when the first\n"
    "non-blank line starts with S0 to S9, Intel HEX when it starts with ':', raw binary\n"
    "otherwise; --format names it instead. Raw binary goes to ADDR, which it needs. HEX,\n"
    "S-record and ELF go to the addresses they hold, each moved by ADDR when it is given (an\n"
    "offset, added). Of an ELF file, each PT_LOAD segment goes to its physical address\n"
    "(p_paddr), or its virtual one with --vaddr, p_filesz bytes of it from the file; the rest of\n"
    "p_memsz, such as .bss, is left as it is. Records that overlap, wrap around or would load\n"
    "nothing are refused before anything is written. FILE is read in pieces of 64 KiB, so it\n"
    "may be of any size; '-' reads stdin, and every format but ELF may come from a pipe. With\n"
    "--width W every access moves exactly W bytes, and every record must start and end on a\n"
    "multiple of W. More than 256 MiB needs --force; a stream stops with that failure once it\n"
    "passes the bound.\n";

const Flag kFormatFlag{"format", "F",
                       "the format of FILE: raw, ihex, srec or elf (default: from its content)"};
const Flag kVaddrFlag{"vaddr", nullptr, "load ELF segments at their virtual addresses (p_vaddr)"};
const Flag kWidthFlag{"width", "W", "access exactly W bytes (1, 2, 4 or 8) at a time"};
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
           "address that differs. Says where the image's entry point is; with --start, sets pc to it\n"
           "once the load (and its verify) succeeded. Each pass ends with a line on stderr:\n"
           "\"N bytes in X s (Y KiB/s)\".",
       {"FILE"},
       {"ADDR"},
       {kFormatFlag,
        {"verify", nullptr, "read the bytes back and compare"},
        {"start", nullptr, "set pc to the image's entry point once it is loaded"},
        kVaddrFlag,
        kWidthFlag,
        kPartFlag},
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
       {kFormatFlag, kVaddrFlag, kWidthFlag, kPartFlag},
       true,
       buildVerify},
  };
}

}  // namespace kvx::cli
