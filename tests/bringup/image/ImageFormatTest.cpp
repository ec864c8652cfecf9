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

TEST(ImageFormatTest, TheExtensionOfANewFileNamesItsFormat) {
  EXPECT_EQ(bringup::formatFromExtension("dump.S19"), ImageFormat::kSRecord);
  EXPECT_EQ(bringup::formatFromExtension("out/fw.ihex"), ImageFormat::kIntelHex);
  EXPECT_EQ(bringup::formatFromExtension("v1.hex/dump"), std::nullopt);
  EXPECT_EQ(bringup::formatFromExtension("dump.bin"), std::nullopt);
}

}  // namespace
}  // namespace kvx::test
