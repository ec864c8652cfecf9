#include "bringup/transfer/ImageTransfers.h"

#include <algorithm>
#include <cstring>

#include "bringup/Error.h"
#include "bringup/Numbers.h"
#include "bringup/transfer/WorkerMessages.h"
#include "bringup/transfer/Workers.h"

namespace kvx::bringup {
namespace {

/// Calls `move` with each piece of `image`, stopping a stream at the bound as soon as it passes
/// it. A worker's `part` keeps only the bytes in it.
void eachPiece(Image& image, const Transfer& transfer, const std::optional<Range>& part,
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
/// bytes each, cut at 8-byte boundaries (at multiples of the width, when there is one). Reads
/// the image through once.
std::vector<Range> shares(Image& image, const Transfer& transfer, unsigned jobs) {
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

/// The words that open the image of `source` in a worker as this process reads it.
std::vector<std::string> imageWords(const ImageSource& source, ImageFormat format) {
  std::vector<std::string> words{source.path};
  if (source.options.address) words.push_back(hexAddress(*source.options.address));
  words.insert(words.end(), {"--format", formatName(format)});
  if (source.options.virtualAddresses) words.push_back("--vaddr");
  if (source.options.width != 0) words.insert(words.end(), {"--width", std::to_string(source.options.width)});
  return words;
}

Transfer::Source sourceOf(const uint8_t* bytes) {
  return [bytes](uint64_t offset, uint8_t* out, size_t count) { std::memcpy(out, bytes + offset, count); };
}

/// Moves the image between the target and this process, or its workers running `command`
/// ("load" or "verify"); `move` moves one piece in this process.
void moveImage(Transfer& transfer, Image& image, const ImageSource& source, const std::optional<Range>& part,
               const char* command, const Image::Visitor& move) {
  if (transfer.options().jobs > 1 && image.rereadable() && !part) {
    runWorkers(
        transfer, shares(image, transfer, transfer.options().jobs),
        [&](const Range& share) {
          return imagePartCommand(command, imageWords(source, image.format()), share);
        },
        [](size_t, const uint8_t*, size_t) {});
    return;
  }
  eachPiece(image, transfer, part, move);
}

}  // namespace

std::unique_ptr<Image> openImage(const ImageSource& source, const Transfer& transfer,
                                 const Image::Warn& warn) {
  std::unique_ptr<Image> image = Image::open(source.path, source.options, warn);
  if (image->size()) transfer.checkBound(*image->size());
  return image;
}

void loadImage(Transfer& transfer, Image& image, const ImageSource& source,
               const std::optional<Range>& part) {
  moveImage(transfer, image, source, part, "load", [&](uint64_t address, const uint8_t* bytes, size_t count) {
    transfer.write({address, count}, sourceOf(bytes));
  });
}

void verifyImage(Transfer& transfer, Image& image, const ImageSource& source,
                 const std::optional<Range>& part, const std::string& fileHas, const std::string& targetHas) {
  moveImage(
      transfer, image, source, part, "verify", [&](uint64_t address, const uint8_t* bytes, size_t count) {
        if (const auto mismatch = transfer.verify({address, count}, sourceOf(bytes))) {
          throw Error(
              Error::Kind::kTarget, "verify failed at " + hexAddress(mismatch->address),
              fileHas + hexPadded(mismatch->expected, 2) + ", " + targetHas + hexPadded(mismatch->found, 2));
        }
      });
}

}  // namespace kvx::bringup
