// Snapshots written as image files: the exact records of each format, the ranges they cannot
// hold, and the round trip: what is written, the image readers read back to the same bytes at
// the same addresses.

#include "bringup/image/ImageWriter.h"

#include <tuple>

#include <gtest/gtest.h>

#include "bringup/Error.h"
#include "tests/bringup/image/ImageFiles.h"

namespace kvx::test {
namespace {

using bringup::Error;
using bringup::ImageFormat;
using bringup::ImageWriter;

class ImageWriterTest : public ImageFilesTest {
 protected:
  /// The file that the writer of `format` makes of `bytes` at `address`, handed to it in pieces
  /// of `piece` bytes.
  static std::string written(ImageFormat format, uint64_t address, const std::string& bytes, size_t piece) {
    std::string out;
    const auto writer = ImageWriter::create(
        format, address, bytes.size(),
        [&](const void* data, size_t count) { out.append(static_cast<const char*>(data), count); });
    for (size_t done = 0; done < bytes.size(); done += piece) {
      writer->write(reinterpret_cast<const uint8_t*>(bytes.data()) + done,
                    std::min(piece, bytes.size() - done));
    }
    writer->finish();
    return out;
  }
};

TEST_F(ImageWriterTest, RecordsStartAtMultiplesOfSixteenAndNameTheirAddressesAsEachFormatDoes) {
  const std::string bytes = "ABCDEFGHIJKLMNOPQRST";
  // Across 64 KiB: Intel HEX moves its base with an extended linear address record; S-record
  // takes S2, the smallest type that holds 0x1000b, and ends with S8.
  EXPECT_EQ(written(ImageFormat::kIntelHex, 0xfff8, bytes, 3),
            ":08FFF8004142434445464748DD\n"
            ":020000040001F9\n"
            ":0C000000494A4B4C4D4E4F505152535446\n"
            ":00000001FF\n");
  EXPECT_EQ(written(ImageFormat::kSRecord, 0xfff8, bytes, 20),
            "S0030000FC\n"
            "S20C00FFF84142434445464748D8\n"
            "S210010000494A4B4C4D4E4F505152535440\n"
            "S804000000FB\n");
  EXPECT_EQ(written(ImageFormat::kRaw, 0xfff8, bytes, 7), bytes);
  // The type of the data records, and of the end, as the highest address needs.
  for (const auto& [address, length, types] :
       {std::tuple{0xfff0u, 16u, "S1S9"}, std::tuple{0xfff0u, 17u, "S2S8"},
        std::tuple{0xfffff0u, 17u, "S3S7"}}) {
    const std::string file = written(ImageFormat::kSRecord, address, std::string(length, 'x'), 64);
    EXPECT_EQ(file.substr(file.find('\n') + 1, 2) + file.substr(file.rfind('S'), 2), types)
        << "case: " << types;
  }
}

TEST_F(ImageWriterTest, WhatIsWrittenLoadsBackToTheSameBytesAtTheSameAddresses) {
  const struct {
    uint64_t address;
    size_t length;
  } ranges[] = {{0x13, 100}, {0xfff0, 70000}, {0xffffff00, 256}, {0x80000000, 0}};
  for (const ImageFormat format : {ImageFormat::kIntelHex, ImageFormat::kSRecord}) {
    for (const auto& range : ranges) {
      const std::string bytes = pattern(range.length);
      const auto image = open(file("snapshot", written(format, range.address, bytes, 4097)));
      EXPECT_EQ(image->format(), format);
      EXPECT_EQ(image->size(), range.length);
      EXPECT_EQ(bytesOf(*image), bytesAt(range.address, bytes))
          << "case: " << bringup::formatName(format) << " at " << range.address;
    }
  }
  EXPECT_TRUE(m_warnings.empty()) << m_warnings.front();
}

TEST_F(ImageWriterTest, ARangeTheFormatCannotHoldIsAUsageErrorBeforeAnythingIsWritten) {
  const struct {
    ImageFormat format;
    uint64_t address;
    uint64_t length;
    std::string message;
  } cases[] = {
      {ImageFormat::kIntelHex, 0xfffffff0, 17,
       "cannot write 17 bytes at 0xfffffff0 as Intel HEX, whose addresses end at 4 GiB; raw binary holds any "
       "range"},
      {ImageFormat::kSRecord, 0x100000000, 1,
       "cannot write 1 byte at 0x100000000 as S-record, whose addresses end at 4 GiB; raw binary holds any "
       "range"},
      {ImageFormat::kRaw, 0xffffffffffffff00, 0x101,
       "the 257 bytes at 0xffffffffffffff00 run past the end of the 64-bit address space"},
      {ImageFormat::kElf, 0, 16, "a snapshot is not written as ELF (raw, ihex or srec)"},
  };
  for (const auto& each : cases) {
    const Error error = errorOf([&] {
      ImageWriter::create(each.format, each.address, each.length,
                          [](const void*, size_t) { FAIL() << "wrote"; });
    });
    EXPECT_EQ(error.kind(), Error::Kind::kUsage);
    EXPECT_EQ(error.what(), each.message);
  }
  EXPECT_NO_THROW(ImageWriter::create(ImageFormat::kRaw, 0x100000000, 16, [](const void*, size_t) {}));
}

}  // namespace
}  // namespace kvx::test
