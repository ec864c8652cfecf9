// What the image tests share: files in a scratch directory, streams through pipes, the pieces an
// image hands out, HEX and S-record lines with their checksums, and small ELF files built byte by
// byte, so that each test says exactly what its file holds.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "bringup/Error.h"
#include "bringup/image/Image.h"

namespace kvx::test {

/// A fixture with a scratch directory, removed afterwards, and the warnings an image gave.
class ImageFilesTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  /// Writes `content` into a new file `name` in the scratch directory; its path.
  std::string file(const std::string& name, const std::string& content);
  /// A path that reads `content` as a stream: a pipe's read end, which a thread fills and closes.
  std::string stream(const std::string& content);
  /// Opens `path` as `options` say, its warnings kept in m_warnings.
  std::unique_ptr<bringup::Image> open(const std::string& path,
                                       const bringup::ImageOptions& options = bringup::ImageOptions());

  std::string m_directory;
  std::vector<std::string> m_warnings;

 private:
  std::vector<int> m_pipes;
  std::vector<std::thread> m_writers;
};

/// Options as most tests give them: a format, an address (an offset but for raw binary), a width.
bringup::ImageOptions options(std::optional<bringup::ImageFormat> format,
                              std::optional<uint64_t> address = std::nullopt, unsigned width = 0);

/// The Error that `action` throws; when it throws none, a test failure and an empty usage Error.
bringup::Error errorOf(const std::function<void()>& action);

/// Every byte an image hands out, by address; a byte handed out twice fails the test.
std::map<uint64_t, uint8_t> bytesOf(bringup::Image& image);
/// The bytes of `text` at `address` on, as bytesOf() gives them.
std::map<uint64_t, uint8_t> bytesAt(uint64_t address, const std::string& text);

/// `size` bytes, each unlike its neighbours and those a piece before it.
std::string pattern(size_t size);

/// An Intel HEX record line: ":", count, address, type, data, checksum.
std::string hexLine(unsigned type, uint16_t address, const std::string& data);
/// An S-record line of type `type` (0 to 9) with its address in `addressBytes` bytes.
std::string sLine(unsigned type, uint64_t address, const std::string& data);

/// An ELF file of 64 bits, little-endian, for x86-64, as the tests need one: its program headers
/// with their bytes after them and, when `symbols` is set, one section (.text, of no bytes) and a
/// symbol table.
struct ElfLayout {
  struct Segment {
    uint32_t type;
    uint64_t physical;
    uint64_t virtualAddress;
    std::string bytes;
  };
  struct Symbol {
    std::string name;
    uint64_t value;
    uint64_t size;
    unsigned type;
    bool local;
    /// 1 is .text.
    uint16_t section;
  };
  uint16_t type = 2;  // ET_EXEC
  uint64_t entry = 0;
  std::vector<Segment> segments;
  std::optional<std::vector<Symbol>> symbols;
};
std::string elfFile(const ElfLayout& layout);

}  // namespace kvx::test
