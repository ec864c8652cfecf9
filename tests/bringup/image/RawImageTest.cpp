// Raw binary: the file's bytes from the address given on, in pieces, from a file or a stream, and
// the checks of its range that a stream can make only as it comes.

#include "bringup/image/RawImage.h"

#include <gtest/gtest.h>

#include "bringup/Error.h"
#include "tests/bringup/image/ImageFiles.h"

namespace kvx::test {
namespace {

using bringup::Error;
using bringup::Image;
using bringup::ImageFormat;
using bringup::ImageOptions;

class RawImageTest : public ImageFilesTest {};

TEST_F(RawImageTest, AFileAndAStreamHandOutTheSameBytesInPiecesFromTheAddress) {
  const std::string bytes = pattern(3 * Image::kPieceBytes + 5);
  const ImageOptions raw = options(ImageFormat::kRaw, 0x10000000);
  const auto fromFile = open(file("data.bin", bytes), raw);
  EXPECT_EQ(fromFile->size(), bytes.size());
  EXPECT_TRUE(fromFile->rereadable());
  EXPECT_EQ(bytesOf(*fromFile), bytesAt(0x10000000, bytes));
  const auto fromStream = open(stream(bytes), raw);
  EXPECT_EQ(fromStream->size(), std::nullopt);
  EXPECT_FALSE(fromStream->rereadable());
  EXPECT_EQ(fromStream->entryPoint(), std::nullopt);
  EXPECT_EQ(bytesOf(*fromStream), bytesAt(0x10000000, bytes));
}

TEST_F(RawImageTest, AStreamFindsWhatAFileFindsWhenItOpensOnlyWhenItComesToIt) {
  const std::string bytes = pattern(Image::kPieceBytes + 6);
  for (const ImageOptions& each :
       {options(ImageFormat::kRaw, 0xffffffffffff0000), options(ImageFormat::kRaw, 0x1000, 4)}) {
    EXPECT_THROW(open(file("data.bin", bytes), each), Error);
    const auto image = open(stream(bytes), each);
    uint64_t handed = 0;
    const Error error = errorOf(
        [&] { image->visit([&handed](uint64_t, const uint8_t*, size_t count) { handed += count; }); });
    EXPECT_EQ(error.kind(), Error::Kind::kUsage) << error.what();
    // The first piece, whole; nothing of the one that fails.
    EXPECT_EQ(handed, Image::kPieceBytes) << "case: " << each.width;
  }
}

}  // namespace
}  // namespace kvx::test
