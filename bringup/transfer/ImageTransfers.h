// The transfers of an image file: load it into target memory, and verify target memory against
// it. Each runs in this process, or, for an image that can be read again, shared between workers
// by address ranges that hold about as many of its bytes each; a worker moves only the bytes of
// its part.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "bringup/Ranges.h"
#include "bringup/image/Image.h"
#include "bringup/transfer/Transfer.h"

namespace kvx::bringup {

/// What a load or verify reads: the image's file and how, as the user gave them.
struct ImageSource {
  std::string path;
  ImageOptions options;
};

/// Opens the image of `source` for `transfer`: its size is checked against the transfer's bound
/// before anything is reached, and its warnings go to `warn`. Throws as Image::open does.
std::unique_ptr<Image> openImage(const ImageSource& source, const Transfer& transfer,
                                 const Image::Warn& warn);

/// Writes the image's bytes to the target; with `part`, only those in it (a worker's share).
void loadImage(Transfer& transfer, Image& image, const ImageSource& source, const std::optional<Range>& part);

/// Reads the image's bytes back from the target; with `part`, only those in it. Throws Error
/// (kTarget) at the first byte that differs: "verify failed at 0x104", and FILE_HAS and
/// TARGET_HAS with the two values ("wrote 0x41, read back 0x42").
void verifyImage(Transfer& transfer, Image& image, const ImageSource& source,
                 const std::optional<Range>& part, const std::string& fileHas, const std::string& targetHas);

}  // namespace kvx::bringup
