#include "bringup/image/ImageFormat.h"

#include <gtest/gtest.h>

namespace kvx::test {
namespace {

using bringup::ImageFormat;

TEST(ImageFormatTest, EveryNameReadsBackAsItsFormat) {
  for (ImageFormat format :
       {ImageFormat::kRaw, ImageFormat::kIntelHex, ImageFormat::kSRecord, ImageFormat::kElf}) {
    EXPECT_EQ(bringup::parseFormat(bringup::formatName(format)), format);
  }
  EXPECT_EQ(bringup::parseFormat("hex"), std::nullopt);
  EXPECT_EQ(bringup::formatNames(), "raw, ihex, srec or elf");
}

}  // namespace
}  // namespace kvx::test
