// Intel HEX and S-record images: what each record puts where, and every record that is refused
// or skipped, named by its line, from a file (before anything is handed out) and from a stream
// (when the record comes).

#include "bringup/image/RecordImage.h"

#include <gtest/gtest.h>

#include "bringup/Error.h"
#include "tests/bringup/image/ImageFiles.h"

namespace kvx::test {
namespace {

using bringup::Error;
using bringup::Image;
using bringup::ImageFormat;

const std::string kImages = KVX_TEST_IMAGES "/";

class RecordImageTest : public ImageFilesTest {};

TEST_F(RecordImageTest, SampleFilesPutTheirBytesAtTheirAddressesMovedByTheOffset) {
  auto expected = bytesAt(0x13000, "text segment, loaded at 0x3000");
  expected.merge(bytesAt(0x15000, "data segment, at 0x5000; its bss follows"));
  // HEX start linear address 0x80003000; S9 0x3000: each moved as the bytes are.
  for (const auto& [name, entry] : {std::pair{"image.hex", 0x80013000u}, std::pair{"image.s19", 0x13000u}}) {
    const auto image = open(kImages + name, options(std::nullopt, 0x10000));
    EXPECT_TRUE(image->size() == 70u && image->rereadable() && image->entryPoint() == entry)
        << "case: " << name;
    EXPECT_EQ(bytesOf(*image), expected) << "case: " << name;
  }
  // The S-record file has its header and its termination record: nothing to warn of.
  EXPECT_TRUE(m_warnings.empty()) << m_warnings.front();
}

TEST_F(RecordImageTest, AddressRecordsSetTheBaseAndStartRecordsTheEntryPoint) {
  const auto linear =
      open(file("linear.hex", hexLine(4, 0, "\x12\x34") + hexLine(0, 0xfffe, "abcd") +
                                  hexLine(5, 0, std::string("\x00\x00\x20\x00", 4)) + hexLine(1, 0, "")));
  // Linear addresses go on across 64 KiB boundaries.
  EXPECT_EQ(bytesOf(*linear), bytesAt(0x1234fffe, "abcd"));
  EXPECT_EQ(linear->entryPoint(), 0x2000u);
  const auto segmented =
      open(file("segment.hex", hexLine(2, 0, std::string("\x10\x00", 2)) + hexLine(0, 0x10, "ab") +
                                   hexLine(3, 0, std::string("\x01\x00\x00\x20", 4)) + hexLine(1, 0, "")));
  EXPECT_EQ(bytesOf(*segmented), bytesAt(0x10010, "ab"));
  EXPECT_EQ(segmented->entryPoint(), 0x1020u);
  const auto s3 =
      open(file("s3.srec", sLine(0, 0, "") + sLine(3, 0x80000000, "xyz") + sLine(7, 0x80000004, "")));
  EXPECT_EQ(bytesOf(*s3), bytesAt(0x80000000, "xyz"));
  EXPECT_EQ(s3->entryPoint(), 0x80000004u);
  EXPECT_EQ(open(file("none.hex", hexLine(0, 0x100, "ab") + hexLine(1, 0, "")))->entryPoint(), std::nullopt);
  EXPECT_TRUE(m_warnings.empty());
}

TEST_F(RecordImageTest, MalformedRecordsAreFileErrorsNamingTheLine) {
  const std::string eof = hexLine(1, 0, "");
  const std::string good = hexLine(0, 0x100, "ab");
  const struct {
    const char* name;
    std::string content;
    std::string message;
  } cases[] = {
      {"the sample with a changed byte", std::string(), "line 3: checksum mismatch (00 != FF)"},
      {"HEX checksum", ":0401000061626364FF\n" + eof, "line 1: checksum mismatch (8E != 00)"},
      {"not a hex digit", good + ":02010000zz\n", "line 2: hexadecimal digit expected at column 10"},
      {"count against length", ":0501000061626364FF\n",
       "line 1: the record holds 9 bytes, its count calls for 10"},
      {"unknown HEX type", hexLine(6, 0, "ab"), "line 1: unknown record type 06"},
      {"end-of-file with data", hexLine(1, 0, "ab"),
       "line 1: the end-of-file record holds 2 bytes, where it takes 0"},
      {"longer than any record", ":" + std::string(600, '0') + "\n", "line 1: longer than any record"},
      {"unknown S-record type", sLine(0, 0, "") + "SX0301\n", "line 2: unknown record type 'SX'"},
      {"reserved S4", sLine(4, 0, "ab"), "line 1: S4 records are reserved"},
      {"S3 too short", sLine(0, 0, "") + "S3030000FC\n",
       "line 2: too short for an S3 record, which has a 32-bit address"},
      {"count record", sLine(1, 0, "a") + sLine(1, 1, "b") + sLine(5, 3, "") + sLine(9, 0, ""),
       "line 3: the count record says 3 data records, the file holds 2 before it"},
      // Past the top of the space the record addresses: wrapping to 0, or beyond 4 GiB.
      {"HEX at the top of 4 GiB", hexLine(4, 0, "\xff\xff") + hexLine(0, 0xfff8, std::string(16, 'w')) + eof,
       "line 2: the 16 bytes at 0xfffffff8 run past the end of the 32-bit address space"},
      {"HEX at the end of its segment",
       hexLine(2, 0, std::string("\x10\x00", 2)) + hexLine(0, 0xfffc, "wrap!") + eof,
       "line 2: the 5 bytes at 0x1fffc run past the end of the 64 KiB segment at 0x10000"},
      {"S3 at the top of 4 GiB", sLine(3, 0xfffffffc, "wrap!") + sLine(7, 0, ""),
       "line 1: the 5 bytes at 0xfffffffc run past the end of the 32-bit address space of an S3 record"},
      {"S1 at the top of 64 KiB", sLine(1, 0xffff, "ab") + sLine(9, 0, ""),
       "line 1: the 2 bytes at 0xffff run past the end of the 16-bit address space of an S1 record"},
  };
  for (const auto& each : cases) {
    const bool sample = each.content.empty();
    const Error error =
        errorOf([&] { bytesOf(*open(sample ? kImages + "bad.s19" : file("bad", each.content))); });
    const bool hex = each.content.rfind(":", 0) == 0;
    EXPECT_EQ(error.kind(), Error::Kind::kFile) << "case: " << each.name;
    EXPECT_EQ(error.attempted(), "cannot read '" + (sample ? kImages + "bad.s19" : m_directory + "/bad") +
                                     "' as " + (hex ? "Intel HEX" : "S-record"))
        << "case: " << each.name;
    EXPECT_EQ(error.reason(), each.message) << "case: " << each.name;
  }
}

TEST_F(RecordImageTest, OverlappingRecordsAreRefusedNamingBoth) {
  // Lines 1 to 3 make one run of bytes; line 5 lands in the middle one's, found again in the file.
  const std::string content = hexLine(0, 0x100, std::string(16, 'a')) +
                              hexLine(0, 0x110, std::string(16, 'b')) +
                              hexLine(0, 0x120, std::string(16, 'c')) + hexLine(0, 0x200, "z") +
                              hexLine(0, 0x118, "xy") + hexLine(1, 0, "");
  const Error inFile = errorOf([&] { open(file("overlap.hex", content)); });
  EXPECT_EQ(inFile.kind(), Error::Kind::kFile);
  EXPECT_EQ(inFile.reason(), "line 5: its bytes at 0x118-0x119 overlap those of line 2 at 0x110-0x11f");
  // A stream cannot be read again: the run is named, once the bytes before it are handed out.
  const auto image = open(stream(content));
  std::map<uint64_t, uint8_t> handed;
  const Error inStream = errorOf([&] {
    image->visit([&](uint64_t address, const uint8_t*, size_t count) { handed[address] = count; });
  });
  EXPECT_EQ(inStream.reason(),
            "line 5: its bytes at 0x118-0x119 overlap those of lines 1 to 3 at 0x100-0x12f");
  EXPECT_EQ(handed, (std::map<uint64_t, uint8_t>{{0x100, 48}}));
  // Records in any order that only touch are no overlap, in S-record as well.
  const auto touching =
      open(file("touching.s19", sLine(0, 0, "") + sLine(1, 0x10, "cd") + sLine(1, 0x0e, "ab") +
                                    sLine(1, 0x12, "ef") + sLine(9, 0, "")));
  EXPECT_EQ(bytesOf(*touching), bytesAt(0x0e, "abcdef"));
}

TEST_F(RecordImageTest, WhatFollowsTheEndIsNotLoadedAndWarnedOfInBothFormats) {
  for (const auto& [content, warning] :
       {std::pair{hexLine(0, 0x100, "ab") + "\n" + hexLine(1, 0, "") + "\n" + hexLine(0, 0x200, "cd"),
                  "line 5: warning: ignoring what follows the end-of-file record of line 3"},
        std::pair{sLine(0, 0, "") + sLine(1, 0x100, "ab") + sLine(9, 0x100, "") + sLine(1, 0x200, "cd"),
                  "line 4: warning: ignoring what follows the termination record of line 3"}}) {
    m_warnings.clear();
    const auto image = open(file("after", content));
    EXPECT_EQ(m_warnings, std::vector<std::string>{warning});
    EXPECT_TRUE(bytesOf(*image) == bytesAt(0x100, "ab") && image->size() == 2u) << "case: " << warning;
  }
}

TEST_F(RecordImageTest, AFileThatLoadsWithFaultsWarnsOncePerFault) {
  open(file("cut.hex", hexLine(0, 0x100, "ab") + "; a comment\n" + "garbage\n"));
  open(file("cut.srec", sLine(1, 0x100, "ab")));
  EXPECT_EQ(m_warnings,
            (std::vector<std::string>{
                "line 2: warning: ignoring lines that are not records",
                "line 4: warning: no end-of-file record: the file may be cut short",
                "line 1: warning: no header record",
                "line 2: warning: no termination record (S7, S8 or S9): the file may be cut short",
            }));
}

TEST_F(RecordImageTest, ARecordThatTheWidthDoesNotFitIsAUsageErrorBeforeAnythingIsHandedOut) {
  const std::string content = hexLine(0, 0x100, "abcd") + hexLine(0, 0x104, "ef") + hexLine(1, 0, "");
  const std::string path = file("width.hex", content);
  const Error error = errorOf([&] { open(path, options(std::nullopt, 0x1000, 4)); });
  EXPECT_EQ(error.kind(), Error::Kind::kUsage);
  EXPECT_EQ(error.what(),
            "the record on line 2 of '" + path +
                "' goes to 0x1104-0x1105: accesses of 4 bytes need a start and an end on a multiple of 4");
  EXPECT_EQ(bytesOf(*open(path, options(std::nullopt, 0x1000, 2))).size(), 6u);
  // From a stream, the record is found when it comes, after the bytes before it.
  const auto image =
      open(stream(hexLine(0, 0x100, "abcd") + hexLine(0, 0x200, "efgh") + hexLine(0, 0x300, "ij")),
           options(std::nullopt, std::nullopt, 4));
  std::vector<uint64_t> handed;
  EXPECT_THROW(image->visit([&](uint64_t address, const uint8_t*, size_t) { handed.push_back(address); }),
               Error);
  EXPECT_EQ(handed, (std::vector<uint64_t>{0x100}));
}

TEST_F(RecordImageTest, AStreamHasItsSizeUnknownAndItsEntryPointKnownOnlyAtItsEnd) {
  const auto image =
      open(stream("\n\n" + sLine(0, 0, "") + sLine(2, 0x123456, "abc") + sLine(8, 0x123456, "")));
  EXPECT_TRUE(image->format() == ImageFormat::kSRecord && !image->rereadable() && !image->size() &&
              !image->entryPoint());
  EXPECT_EQ(bytesOf(*image), bytesAt(0x123456, "abc"));
  EXPECT_EQ(image->entryPoint(), 0x123456u);
}

}  // namespace
}  // namespace kvx::test
