#include "tests/bringup/image/ImageFiles.h"

#include <elf.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>

namespace kvx::test {
namespace {

/// `value`'s bytes as they are in memory, written into `out` at `offset`, which grows to hold them.
template <typename T>
void put(std::string& out, size_t offset, const T& value) {
  if (out.size() < offset + sizeof value) out.resize(offset + sizeof value);
  std::memcpy(&out[offset], &value, sizeof value);
}

/// `prefix`, then `bytes` and `data` and the checksum that `check` makes of their sum, in hex.
std::string recordLine(const std::string& prefix, std::vector<uint8_t> bytes, const std::string& data,
                       unsigned (*check)(unsigned sum)) {
  bytes.insert(bytes.end(), data.begin(), data.end());
  unsigned sum = 0;
  for (const uint8_t byte : bytes) sum += byte;
  bytes.push_back(static_cast<uint8_t>(check(sum)));
  std::string text = prefix;
  char pair[3];
  for (const uint8_t byte : bytes) {
    std::snprintf(pair, sizeof pair, "%02X", byte);
    text += pair;
  }
  return text + "\n";
}

}  // namespace

void ImageFilesTest::SetUp() {
  std::string pattern = ::testing::TempDir() + "kvx-image-XXXXXX";
  ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
  m_directory = pattern;
}

void ImageFilesTest::TearDown() {
  // Closing the read ends stops a writer that the image did not read to the end.
  for (const int fd : m_pipes) ::close(fd);
  for (std::thread& writer : m_writers) writer.join();
  std::filesystem::remove_all(m_directory);
}

std::string ImageFilesTest::file(const std::string& name, const std::string& content) {
  const std::string path = m_directory + "/" + name;
  std::ofstream(path, std::ios::binary) << content;
  return path;
}

std::string ImageFilesTest::stream(const std::string& content) {
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0) ADD_FAILURE() << "pipe2: " << std::strerror(errno);
  m_pipes.push_back(fds[0]);
  m_writers.emplace_back([content, fd = fds[1]] {
    // A reader gone makes write fail with EPIPE rather than end the test program.
    sigset_t pipe;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
    for (size_t done = 0; done < content.size();) {
      const ssize_t wrote = ::write(fd, content.data() + done, content.size() - done);
      if (wrote <= 0) break;
      done += static_cast<size_t>(wrote);
    }
    ::close(fd);
  });
  return "/dev/fd/" + std::to_string(fds[0]);
}

std::unique_ptr<bringup::Image> ImageFilesTest::open(const std::string& path,
                                                     const bringup::ImageOptions& options) {
  return bringup::Image::open(path, options,
                              [this](const std::string& warning) { m_warnings.push_back(warning); });
}

bringup::ImageOptions options(std::optional<bringup::ImageFormat> format, std::optional<uint64_t> address,
                              unsigned width) {
  bringup::ImageOptions options;
  options.format = format;
  options.address = address;
  options.width = width;
  return options;
}

bringup::Error errorOf(const std::function<void()>& action) {
  try {
    action();
  } catch (const bringup::Error& error) {
    return error;
  }
  ADD_FAILURE() << "no error";
  return bringup::usageError("");
}

std::map<uint64_t, uint8_t> bytesOf(bringup::Image& image) {
  std::map<uint64_t, uint8_t> bytes;
  image.visit([&bytes](uint64_t address, const uint8_t* data, size_t count) {
    EXPECT_LE(count, bringup::Image::kPieceBytes);
    for (size_t i = 0; i < count; ++i) {
      if (!bytes.emplace(address + i, data[i]).second) ADD_FAILURE() << "twice: " << address + i;
    }
  });
  return bytes;
}

std::map<uint64_t, uint8_t> bytesAt(uint64_t address, const std::string& text) {
  std::map<uint64_t, uint8_t> bytes;
  for (size_t i = 0; i < text.size(); ++i) bytes[address + i] = static_cast<uint8_t>(text[i]);
  return bytes;
}

std::string pattern(size_t size) {
  std::string text(size, '\0');
  for (size_t i = 0; i < size; ++i) text[i] = static_cast<char>(i * 13 + i / 251);
  return text;
}

std::string hexLine(unsigned type, uint16_t address, const std::string& data) {
  std::vector<uint8_t> bytes{static_cast<uint8_t>(data.size()), static_cast<uint8_t>(address >> 8),
                             static_cast<uint8_t>(address), static_cast<uint8_t>(type)};
  return recordLine(":", bytes, data, [](unsigned sum) { return -sum; });
}

std::string sLine(unsigned type, uint64_t address, const std::string& data) {
  static const size_t kAddressBytes[] = {2, 2, 3, 4, 2, 2, 3, 4, 3, 2};
  std::vector<uint8_t> bytes{static_cast<uint8_t>(kAddressBytes[type] + data.size() + 1)};
  for (size_t i = kAddressBytes[type]; i-- > 0;) bytes.push_back(static_cast<uint8_t>(address >> (8 * i)));
  return recordLine("S" + std::to_string(type), bytes, data, [](unsigned sum) { return ~sum; });
}

std::string elfFile(const ElfLayout& layout) {
  Elf64_Ehdr header{{ELFMAG0, ELFMAG1, ELFMAG2, ELFMAG3, ELFCLASS64, ELFDATA2LSB, EV_CURRENT},
                    layout.type,
                    EM_X86_64,
                    EV_CURRENT,
                    layout.entry,
                    sizeof(Elf64_Ehdr),
                    0,
                    0,
                    sizeof(Elf64_Ehdr),
                    sizeof(Elf64_Phdr),
                    static_cast<uint16_t>(layout.segments.size()),
                    sizeof(Elf64_Shdr),
                    0,
                    0};
  header.e_phoff = layout.segments.empty() ? 0 : sizeof(Elf64_Ehdr);
  std::string out(sizeof(Elf64_Ehdr) + layout.segments.size() * sizeof(Elf64_Phdr), '\0');
  for (size_t i = 0; i < layout.segments.size(); ++i) {
    const ElfLayout::Segment& segment = layout.segments[i];
    const Elf64_Phdr program{
        segment.type,         0, out.size(), segment.virtualAddress, segment.physical, segment.bytes.size(),
        segment.bytes.size(), 1};
    put(out, sizeof(Elf64_Ehdr) + i * sizeof(Elf64_Phdr), program);
    out += segment.bytes;
  }
  if (layout.symbols) {
    // Sections: none, .text, .symtab, .strtab, .shstrtab. Local symbols come first.
    std::vector<ElfLayout::Symbol> symbols = *layout.symbols;
    const auto locals =
        std::stable_partition(symbols.begin(), symbols.end(), [](const auto& s) { return s.local; });
    std::string names(1, '\0');
    std::string table(sizeof(Elf64_Sym), '\0');
    for (const ElfLayout::Symbol& symbol : symbols) {
      const Elf64_Sym entry{
          static_cast<uint32_t>(names.size()),
          static_cast<unsigned char>(ELF64_ST_INFO(symbol.local ? STB_LOCAL : STB_GLOBAL, symbol.type)),
          0,
          symbol.section,
          symbol.value,
          symbol.size};
      names += symbol.name + '\0';
      put(table, table.size(), entry);
    }
    const std::string sectionNames("\0.text\0.symtab\0.strtab\0.shstrtab\0", 33);
    const uint64_t tableAt = out.size();
    const uint64_t namesAt = tableAt + table.size();
    const uint64_t sectionNamesAt = namesAt + names.size();
    out += table + names + sectionNames;
    const Elf64_Shdr sections[] = {
        {},
        {1, SHT_PROGBITS, SHF_ALLOC | SHF_EXECINSTR, 0, 0, 0, 0, 0, 1, 0},
        {7, SHT_SYMTAB, 0, 0, tableAt, table.size(), 3, static_cast<uint32_t>(1 + (locals - symbols.begin())),
         8, sizeof(Elf64_Sym)},
        {15, SHT_STRTAB, 0, 0, namesAt, names.size(), 0, 0, 1, 0},
        {23, SHT_STRTAB, 0, 0, sectionNamesAt, sectionNames.size(), 0, 0, 1, 0},
    };
    header.e_shoff = out.size();
    header.e_shnum = 5;
    header.e_shstrndx = 4;
    put(out, out.size(), sections);
  }
  put(out, 0, header);
  return out;
}

}  // namespace kvx::test
