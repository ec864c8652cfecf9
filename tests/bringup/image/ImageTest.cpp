// The factory: each format found from the content, the options it refuses before any reading,
// and standard input as a stream.

#include "bringup/image/Image.h"

#include <elf.h>
#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "bringup/Error.h"
#include "tests/bringup/image/ImageFiles.h"

namespace kvx::test {
namespace {

using bringup::Error;
using bringup::ImageFormat;
using bringup::ImageOptions;

class ImageTest : public ImageFilesTest {};

TEST_F(ImageTest, TheFormatIsFoundFromTheContent) {
  ElfLayout elf;
  elf.segments = {{PT_LOAD, 0x1000, 0x1000, "elf"}};
  EXPECT_EQ(open(file("image", elfFile(elf)))->format(), ImageFormat::kElf);
  // Blank lines before the first record; 'S' without a digit; nothing at all. From files and streams.
  for (const auto& [content, format] : {std::pair{"\n  \n" + hexLine(0, 0, "a"), ImageFormat::kIntelHex},
                                        std::pair{sLine(0, 0, "") + sLine(9, 0, ""), ImageFormat::kSRecord},
                                        std::pair{std::string("Some text"), ImageFormat::kRaw},
                                        std::pair{std::string(), ImageFormat::kRaw}}) {
    EXPECT_EQ(open(file("image", content), options(std::nullopt, 0))->format(), format)
        << "case: " << content;
    EXPECT_EQ(open(stream(content), options(std::nullopt, 0))->format(), format) << "case: " << content;
  }
}

TEST_F(ImageTest, WrongUseIsAUsageError) {
  const std::string hex = file("image.hex", hexLine(0, 0, "a") + hexLine(1, 0, ""));
  ElfLayout layout;
  layout.segments = {{PT_LOAD, 0x1000, 0x1000, "elf"}};
  const std::string elf = elfFile(layout);
  const std::string raw = file("image.bin", "raw");
  const struct {
    const char* name;
    std::string path;
    ImageOptions options;
    std::string message;
  } cases[] = {
      {"raw without an address", raw, ImageOptions(),
       "'" + raw + "' is raw binary: give the address to put it at"},
      {"a format the content is not", hex, options(ImageFormat::kElf),
       "'" + hex + "' is not ELF: its content is Intel HEX"},
      {"a width of 3", hex, options(std::nullopt, std::nullopt, 3), "invalid width 3 (1, 2, 4 or 8)"},
      {"ELF from a pipe", stream(elf), ImageOptions(),
       "is ELF, which is read from a regular file only (its parts are found by seeking): save it to a file "
       "first"},
  };
  for (const auto& each : cases) {
    const Error error = errorOf([&] { open(each.path, each.options); });
    EXPECT_EQ(error.kind(), Error::Kind::kUsage) << "case: " << each.name;
    const std::string message = error.what();
    EXPECT_EQ(message.substr(message.size() - std::min(message.size(), each.message.size())), each.message)
        << "case: " << each.name;
  }
  // Anything is raw binary to whoever says so: the HEX file's text, as it is.
  EXPECT_EQ(bytesOf(*open(hex, options(ImageFormat::kRaw, 0x100))).at(0x100), ':');
}

TEST_F(ImageTest, DashReadsStandardInputAsAStream) {
  const std::string content = hexLine(0, 0x100, "stdin") + hexLine(1, 0, "");
  const int saved = ::dup(STDIN_FILENO);
  const int input = ::open(stream(content).c_str(), O_RDONLY);
  ASSERT_EQ(::dup2(input, STDIN_FILENO), STDIN_FILENO);
  ::close(input);
  const auto image = open("-");
  ::dup2(saved, STDIN_FILENO);
  ::close(saved);
  EXPECT_FALSE(image->rereadable());
  EXPECT_EQ(bytesOf(*image), bytesAt(0x100, "stdin"));
  EXPECT_STREQ(errorOf([&] { bytesOf(*image); }).what(),
               "standard input is a pipe or a device: it cannot be read twice");
}

}  // namespace
}  // namespace kvx::test
