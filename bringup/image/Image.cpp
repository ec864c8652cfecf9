#include "bringup/image/Image.h"

#include <elf.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <utility>
#include <vector>

#include "bringup/Error.h"
#include "bringup/image/ElfImage.h"
#include "bringup/image/ImageFile.h"
#include "bringup/image/Placement.h"
#include "bringup/image/RawImage.h"
#include "bringup/image/RecordImage.h"

namespace kvx::bringup {
namespace {

/// The format that the first bytes of a file show: ELF by its magic number, Intel HEX when the
/// first character that is not blank is ':', S-record when it is 'S' and a digit; raw binary
/// otherwise.
ImageFormat detect(const std::vector<uint8_t>& head) {
  if (head.size() >= SELFMAG && std::memcmp(head.data(), ELFMAG, SELFMAG) == 0) return ImageFormat::kElf;
  const auto first = std::find_if(head.begin(), head.end(), [](uint8_t c) { return std::isspace(c) == 0; });
  if (first != head.end() && *first == ':') return ImageFormat::kIntelHex;
  if (first != head.end() && first + 1 != head.end() && *first == 'S' && std::isdigit(first[1]) != 0) {
    return ImageFormat::kSRecord;
  }
  return ImageFormat::kRaw;
}

}  // namespace

Image::~Image() = default;

std::unique_ptr<Image> Image::open(const std::string& path, const ImageOptions& options, const Warn& warn) {
  const Placement placement(options);
  ImageFile file = ImageFile::open(path);
  const ImageFormat found = detect(file.head());
  // Any file may be loaded as raw binary: the user who says so means its bytes as they are.
  if (options.format && *options.format != ImageFormat::kRaw && *options.format != found) {
    throw usageError(file.name() + " is not " + formatDescription(*options.format) + ": its content is " +
                     formatDescription(found));
  }
  switch (options.format.value_or(found)) {
    case ImageFormat::kRaw:
      if (!options.address) throw usageError(file.name() + " is raw binary: give the address to put it at");
      return std::make_unique<RawImage>(std::move(file), placement);
    case ImageFormat::kElf:
      if (file.isStream()) {
        throw usageError(file.name() +
                         " is ELF, which is read from a regular file only (its parts are found by seeking): "
                         "save it to a file first");
      }
      return std::make_unique<ElfImage>(std::move(file), placement, options.virtualAddresses);
    case ImageFormat::kIntelHex:
    case ImageFormat::kSRecord:
      return std::make_unique<RecordImage>(std::move(file), options.format.value_or(found), placement, warn);
  }
  return nullptr;
}

}  // namespace kvx::bringup
