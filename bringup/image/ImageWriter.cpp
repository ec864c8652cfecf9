#include "bringup/image/ImageWriter.h"

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "bringup/Error.h"
#include "bringup/Numbers.h"
#include "bringup/Ranges.h"

// libsrecord writes both text formats, but only to a file it opens by name or to standard output
// (its writers' constructors are private, so no other put_char can be given), and the Debian
// package lacks the header of its S-record writer: so they are written here.

namespace kvx::bringup {
namespace {

/// Data bytes a record holds: records start at multiples of it, so that none crosses a 64 KiB
/// boundary (which Intel HEX marks with an extended linear address record), and lines line up.
constexpr size_t kRecordBytes = 16;
constexpr uint64_t kTextAddressLimit = uint64_t{1} << 32;

class RawWriter final : public ImageWriter {
 public:
  RawWriter(uint64_t address, uint64_t length, Sink sink) : ImageWriter(address, length, std::move(sink)) {}

 private:
  void writeData(uint64_t, const uint8_t* bytes, size_t count) override { m_sink(bytes, count); }
  void writeEnd() override {}
};

/// The text formats: the bytes of each piece cut into records of kRecordBytes at most, at
/// multiples of it, a record that a piece ends in the middle of completed by the next piece; the
/// text of each piece handed to the sink at once.
class TextWriter : public ImageWriter {
 public:
  using ImageWriter::ImageWriter;

 protected:
  /// Adds one record of `count` bytes (at most kRecordBytes) at `address` to the text.
  virtual void record(uint64_t address, const uint8_t* bytes, size_t count) = 0;
  /// Adds the records that end the file.
  virtual void end() = 0;

  /// A line of `bytes`: `prefix`, then each byte as two hex digits, then the line's end.
  void line(const char* prefix, const std::vector<uint8_t>& bytes) {
    static const char kDigits[] = "0123456789ABCDEF";
    m_text += prefix;
    for (const uint8_t byte : bytes) {
      m_text += kDigits[byte >> 4];
      m_text += kDigits[byte & 0xf];
    }
    m_text += '\n';
  }

  static void putBigEndian(std::vector<uint8_t>& bytes, uint64_t value, size_t count) {
    for (size_t i = count; i-- > 0;) bytes.push_back(static_cast<uint8_t>(value >> (8 * i)));
  }

 private:
  void writeData(uint64_t address, const uint8_t* bytes, size_t count) override {
    while (count > 0) {
      if (m_held.empty()) m_start = address;
      const uint64_t boundary = (m_start / kRecordBytes + 1) * kRecordBytes;
      const size_t take =
          static_cast<size_t>(std::min<uint64_t>(count, boundary - (m_start + m_held.size())));
      m_held.insert(m_held.end(), bytes, bytes + take);
      bytes += take;
      address += take;
      count -= take;
      if (m_start + m_held.size() == boundary) release();
    }
    flush();
  }

  void writeEnd() override {
    if (!m_held.empty()) release();
    end();
    flush();
  }

  void release() {
    record(m_start, m_held.data(), m_held.size());
    m_held.clear();
  }

  void flush() {
    if (!m_text.empty()) m_sink(m_text.data(), m_text.size());
    m_text.clear();
  }

  std::string m_text;
  /// The bytes of a record not yet complete, which go at m_start.
  std::vector<uint8_t> m_held;
  uint64_t m_start = 0;
};

class IntelHexWriter final : public TextWriter {
 public:
  IntelHexWriter(uint64_t address, uint64_t length, Sink sink)
      : TextWriter(address, length, std::move(sink)) {}

 private:
  void record(uint64_t address, const uint8_t* bytes, size_t count) override {
    if (address >> 16 != m_base) {
      m_base = address >> 16;
      std::vector<uint8_t> base;
      putBigEndian(base, m_base, 2);
      add(0x04, 0, base);
    }
    add(0x00, address & 0xffff, std::vector<uint8_t>(bytes, bytes + count));
  }

  void end() override { add(0x01, 0, {}); }

  /// ":", the count, the 16-bit address, the type, the data and the checksum that makes them
  /// all add up to 0.
  void add(uint8_t type, uint64_t address, const std::vector<uint8_t>& data) {
    std::vector<uint8_t> bytes{static_cast<uint8_t>(data.size())};
    putBigEndian(bytes, address, 2);
    bytes.push_back(type);
    bytes.insert(bytes.end(), data.begin(), data.end());
    unsigned sum = 0;
    for (const uint8_t byte : bytes) sum += byte;
    bytes.push_back(static_cast<uint8_t>(-sum));
    line(":", bytes);
  }

  /// The upper 16 bits of the addresses, as the last extended linear address record gave them.
  uint64_t m_base = 0;
};

class SRecordWriter final : public TextWriter {
 public:
  SRecordWriter(uint64_t address, uint64_t length, Sink sink, uint64_t highest)
      : TextWriter(address, length, std::move(sink)),
        m_addressBytes(highest <= 0xffff     ? 2
                       : highest <= 0xffffff ? 3
                                             : 4) {
    add(0, 2, 0, nullptr, 0);
  }

 private:
  void record(uint64_t address, const uint8_t* bytes, size_t count) override {
    add(static_cast<int>(m_addressBytes) - 1, m_addressBytes, address, bytes, count);
  }

  /// S9, S8 or S7 go with S1, S2 or S3.
  void end() override { add(11 - static_cast<int>(m_addressBytes), m_addressBytes, 0, nullptr, 0); }

  /// "S" and the type, the count of the bytes that follow, the address, the data, and the
  /// checksum: the ones' complement of the sum of all of them.
  void add(int type, size_t addressBytes, uint64_t address, const uint8_t* data, size_t count) {
    std::vector<uint8_t> bytes{static_cast<uint8_t>(addressBytes + count + 1)};
    putBigEndian(bytes, address, addressBytes);
    bytes.insert(bytes.end(), data, data + count);
    unsigned sum = 0;
    for (const uint8_t byte : bytes) sum += byte;
    bytes.push_back(static_cast<uint8_t>(~sum));
    const char prefix[] = {'S', static_cast<char>('0' + type), '\0'};
    line(prefix, bytes);
  }

  size_t m_addressBytes;
};

}  // namespace

std::unique_ptr<ImageWriter> ImageWriter::create(ImageFormat format, uint64_t address, uint64_t length,
                                                 Sink sink) {
  checkedRange(address, length);
  const uint64_t highest = length == 0 ? address : address + (length - 1);
  if (format != ImageFormat::kRaw && format != ImageFormat::kElf && highest >= kTextAddressLimit) {
    throw usageError("cannot write " + byteCount(length) + " at " + hexAddress(address) + " as " +
                     formatDescription(format) +
                     ", whose addresses end at 4 GiB; raw binary holds any range");
  }
  switch (format) {
    case ImageFormat::kRaw:
      return std::make_unique<RawWriter>(address, length, std::move(sink));
    case ImageFormat::kIntelHex:
      return std::make_unique<IntelHexWriter>(address, length, std::move(sink));
    case ImageFormat::kSRecord:
      return std::make_unique<SRecordWriter>(address, length, std::move(sink), highest);
    case ImageFormat::kElf:
      break;
  }
  throw usageError(std::string("a snapshot is not written as ") + formatDescription(format) +
                   " (raw, ihex or srec)");
}

ImageWriter::ImageWriter(uint64_t address, uint64_t length, Sink sink)
    : m_sink(std::move(sink)), m_next(address), m_left(length) {}

ImageWriter::~ImageWriter() = default;

void ImageWriter::write(const uint8_t* bytes, size_t count) {
  if (count > m_left) throw std::logic_error("more bytes than the image's range holds");
  if (count == 0) return;
  writeData(m_next, bytes, count);
  m_next += count;
  m_left -= count;
}

void ImageWriter::finish() {
  if (m_left != 0) throw std::logic_error("the image's range is not all written");
  writeEnd();
}

}  // namespace kvx::bringup
