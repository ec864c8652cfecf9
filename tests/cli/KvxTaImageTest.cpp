// load and verify end to end, on the image files in images/ (see its README): each format found
// from its content and put where it belongs, raw binary through a pipe, and what a difference or
// a malformed file gives. What libsrecord and libelf parse is their own business.

#include <filesystem>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "tests/support/ChildProcess.h"

namespace kvx::test {
namespace {

const std::string kImages = KVX_TA_IMAGES "/";

TEST(KvxTaImageTest, EachFormatGoesWhereItBelongsAndVerifies) {
  const std::string script = ::testing::TempDir() + "kvx-ta-images.kvx";
  std::ofstream(script)
      << "fill 0x5028 32 0xee\n"  // over the ELF's .bss, which is not the file's to write
         "load image.elf\n"
         "verify image.elf\n"
         "load image.hex 0x10000\n"
         "verify image.hex 0x10000\n"
         "load image.s19 0x20000 --verify\n"
         "load image.hex 0x30000 --format raw\n"
         "load /dev/stdin 0x40000\n"
         "read 0x3000\nread 0x13000\nread 0x25000\nread 0x5028 8\nread 0x30000 1\nread 0x40000 8\n";
  // In images/, with stdin a pipe, so that raw binary arrives as a stream.
  const ProgramResult result = runProgram(
      {"/bin/sh", "-c", R"(cd "$2" && printf streamed | "$0" script "$1")", KVX_TA_PATH, script, kImages});
  std::filesystem::remove(script);
  // "text" at the text segment's physical address, moved by each offset; "data" in the data segment.
  EXPECT_TRUE(result.exitCode == 0 &&
              result.out ==
                  "0x74786574\n0x74786574\n0x61746164\n0xeeeeeeeeeeeeeeee\n0x3a\n0x64656d6165727473\n" &&
              result.err.find("\nkvx-ta: verified 70 bytes in ") != std::string::npos)
      << result;
}

TEST(KvxTaImageTest, ADifferenceOrAMalformedFileFailsNamingWhere) {
  const ProgramResult differs = runProgram({KVX_TA_PATH, "-q", "verify", kImages + "image.elf"});
  EXPECT_TRUE(differs.exitCode == 1 &&
              differs.err == "kvx-ta: verify failed at 0x3000: the file has 0x74, the target 0x00\n")
      << differs;
  const ProgramResult malformed = runProgram({KVX_TA_PATH, "-q", "load", kImages + "bad.s19"});
  EXPECT_TRUE(malformed.exitCode == 1 &&
              malformed.err == "kvx-ta: cannot read '" + kImages +
                                   "bad.s19' as S-record: line 3: checksum mismatch (00 != FF)\n")
      << malformed;
}

}  // namespace
}  // namespace kvx::test
