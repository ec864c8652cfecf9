#include "tools/Image.h"

#include <fcntl.h>
#include <gelf.h>
#include <libelf.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <limits>
#include <memory>

#include <cerrno>
#include "bringup/Error.h"
#include "bringup/Numbers.h"
#include "bringup/Ranges.h"
#include "tools/RecordReader.h"

namespace kvx::cli {
namespace {

const struct {
  const char* name;
  Image::Format format;
  const char* description;
} kFormats[] = {
    {"raw", Image::Format::kRaw, "raw binary"},
    {"ihex", Image::Format::kIntelHex, "Intel HEX"},
    {"srec", Image::Format::kSRecord, "S-record"},
    {"elf", Image::Format::kElf, "ELF"},
};

/// Reads up to `count` bytes, from `offset` on or, when it is empty, from where the file stands;
/// fewer only at the end of the file. Throws bringup::fileError("read", path, errno).
size_t readFully(int fd, uint8_t* bytes, size_t count, std::optional<uint64_t> offset,
                 const std::string& path) {
  size_t done = 0;
  while (done < count) {
    const ssize_t got = offset ? ::pread(fd, bytes + done, count - done, static_cast<off_t>(*offset + done))
                               : ::read(fd, bytes + done, count - done);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) throw bringup::fileError("read", path, errno);
    if (got == 0) break;
    done += static_cast<size_t>(got);
  }
  return done;
}

/// The format that the first bytes of a file show.
Image::Format detect(const uint8_t* bytes, size_t count) {
  if (count >= SELFMAG && std::memcmp(bytes, ELFMAG, SELFMAG) == 0) return Image::Format::kElf;
  size_t first = 0;
  while (first < count && std::isspace(bytes[first]) != 0) ++first;
  if (first < count && bytes[first] == ':') return Image::Format::kIntelHex;
  if (first + 1 < count && bytes[first] == 'S' && std::isdigit(bytes[first + 1]) != 0) {
    return Image::Format::kSRecord;
  }
  return Image::Format::kRaw;
}

RecordReader::Syntax syntaxOf(Image::Format format) {
  return format == Image::Format::kIntelHex ? RecordReader::Syntax::kIntelHex
                                            : RecordReader::Syntax::kSRecord;
}

}  // namespace

Image::Image(std::string path, std::optional<Format> format, std::optional<uint64_t> address,
             const Warn& warn)
    : m_path(std::move(path)), m_offset(address.value_or(0)), m_buffer(kPieceBytes) {
  m_file.fd = ::open(m_path.c_str(), O_RDONLY | O_CLOEXEC);
  struct stat status {};
  if (m_file.fd < 0 || ::fstat(m_file.fd, &status) != 0) throw bringup::fileError("read", m_path, errno);
  m_stream = !S_ISREG(status.st_mode);
  if (!format || m_stream) {
    m_peeked = readFully(m_file.fd, m_buffer.data(), m_buffer.size(),
                         m_stream ? std::nullopt : std::optional<uint64_t>(0), m_path);
  }
  m_format = format.value_or(detect(m_buffer.data(), m_peeked));
  if (m_stream && m_format != Format::kRaw) {
    throw bringup::usageError("'" + m_path +
                              "' is not a regular file: only raw binary is read from a pipe or a device");
  }
  if (m_format == Format::kRaw && !address) {
    throw bringup::usageError("'" + m_path + "' is raw binary: give the address to put it at (ADDR)");
  }
  switch (m_format) {
    case Format::kRaw:
      if (!m_stream) {
        const auto length = static_cast<uint64_t>(status.st_size);
        m_segments.push_back({place(0, length), 0, length});
      }
      break;
    case Format::kElf:
      readElfSegments();
      break;
    case Format::kIntelHex:
    case Format::kSRecord: {
      uint64_t total = 0;
      visitRecords([&total](uint64_t, const uint8_t*, size_t count) { total += count; }, warn);
      m_size = total;
      break;
    }
  }
  if (!m_stream && !m_size) {
    m_size = 0;
    for (const Segment& segment : m_segments) *m_size += segment.length;
  }
}

Image::Descriptor::~Descriptor() {
  if (fd >= 0) ::close(fd);
}

void Image::visit(const Visitor& visitor) {
  switch (m_format) {
    case Format::kRaw:
      if (m_stream) {
        visitStream(visitor);
        return;
      }
      [[fallthrough]];
    case Format::kElf:
      visitSegments(visitor);
      return;
    case Format::kIntelHex:
    case Format::kSRecord:
      visitRecords(visitor, nullptr);
      return;
  }
}

std::optional<Image::Format> Image::parseFormat(const std::string& name) {
  for (const auto& known : kFormats) {
    if (name == known.name) return known.format;
  }
  return std::nullopt;
}

const char* Image::describe(Format format) {
  for (const auto& known : kFormats) {
    if (format == known.format) return known.description;
  }
  return "?";
}

void Image::readElfSegments() {
  const auto malformed = [this](const std::string& reason) {
    return bringup::Error(bringup::Error::Kind::kFile, "cannot read '" + m_path + "' as ELF", reason);
  };
  if (::elf_version(EV_CURRENT) == EV_NONE) throw malformed(::elf_errmsg(-1));
  // Mapped, not read: only the pages of the headers are touched; segments are read in pieces.
  const std::unique_ptr<Elf, int (*)(Elf*)> elf(::elf_begin(m_file.fd, ELF_C_READ_MMAP, nullptr), ::elf_end);
  if (elf == nullptr || ::elf_kind(elf.get()) != ELF_K_ELF) throw malformed("not an ELF file");
  size_t headers = 0;
  if (::elf_getphdrnum(elf.get(), &headers) != 0) throw malformed(::elf_errmsg(-1));
  struct stat status {};
  if (::fstat(m_file.fd, &status) != 0) throw bringup::fileError("read", m_path, errno);
  const auto fileSize = static_cast<uint64_t>(status.st_size);
  for (size_t i = 0; i < headers; ++i) {
    GElf_Phdr header;
    if (::gelf_getphdr(elf.get(), static_cast<int>(i), &header) == nullptr) {
      throw malformed("program header " + std::to_string(i) + ": " + ::elf_errmsg(-1));
    }
    // Of p_memsz, only the p_filesz bytes that the file holds are loaded; the rest is the
    // program's to clear.
    if (header.p_type != PT_LOAD || header.p_filesz == 0) continue;
    if (header.p_offset > fileSize || header.p_filesz > fileSize - header.p_offset) {
      throw malformed("program header " + std::to_string(i) + ": its segment runs past the end of the file");
    }
    m_segments.push_back({place(header.p_paddr, header.p_filesz), header.p_offset, header.p_filesz});
  }
}

void Image::visitSegments(const Visitor& visitor) {
  for (const Segment& segment : m_segments) {
    for (uint64_t done = 0; done < segment.length;) {
      const size_t count = static_cast<size_t>(std::min<uint64_t>(m_buffer.size(), segment.length - done));
      if (readFully(m_file.fd, m_buffer.data(), count, segment.fileOffset + done, m_path) != count) {
        throw bringup::Error(bringup::Error::Kind::kFile, "cannot read '" + m_path + "'",
                             "it is shorter than when it was opened");
      }
      visitor(segment.address + done, m_buffer.data(), count);
      done += count;
    }
  }
}

void Image::visitStream(const Visitor& visitor) {
  if (m_streamRead)
    throw bringup::usageError("'" + m_path + "' is a pipe or a device: it cannot be read twice");
  m_streamRead = true;
  uint64_t done = 0;
  for (size_t count = m_peeked; count > 0;
       count = readFully(m_file.fd, m_buffer.data(), m_buffer.size(), {}, m_path)) {
    visitor(place(done, count), m_buffer.data(), count);
    done += count;
  }
}

void Image::visitRecords(const Visitor& visitor, const Warn& warn) {
  RecordReader reader(m_path, syntaxOf(m_format), warn);
  // Records that follow on from each other are handed out together, a piece at a time.
  uint64_t start = 0;
  size_t held = 0;
  uint32_t fileAddress = 0;
  const uint8_t* bytes = nullptr;
  size_t count = 0;
  while (reader.next(fileAddress, bytes, count)) {
    const uint64_t address = place(fileAddress, count);
    if (held != 0 && (address != start + held || held + count > m_buffer.size())) {
      visitor(start, m_buffer.data(), held);
      held = 0;
    }
    if (held == 0) start = address;
    std::memcpy(m_buffer.data() + held, bytes, count);
    held += count;
  }
  if (held != 0) visitor(start, m_buffer.data(), held);
}

uint64_t Image::place(uint64_t fileAddress, uint64_t length) const {
  if (fileAddress > std::numeric_limits<uint64_t>::max() - m_offset) {
    throw bringup::usageError("the " + std::to_string(length) + " bytes at " +
                              bringup::hexAddress(fileAddress) + " + " + bringup::hexAddress(m_offset) +
                              " run past the end of the 64-bit address space");
  }
  bringup::checkedRange(m_offset + fileAddress, length);
  return m_offset + fileAddress;
}

}  // namespace kvx::cli
