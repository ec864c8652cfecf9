// Reads the records of an Intel HEX or S-record file one at a time, checking each as its format
// has it: hex digits, length, checksum, record type, and addresses that stay within the space
// the record can address (no wrap to 0, no run past 4 GiB). Data records come out; the others set
// the address base, the entry point or the end. What follows the end (the HEX end-of-file record,
// an S-record termination record) is not read, with a warning. Every fault names the line.
// Reads its ImageFile from the start, which must outlive it; single-threaded.
//
// Not through libsrecord, which reads only a file that it opens itself by name, so that a stream
// whose first bytes were read to find its format cannot be handed to it; which stops at a HEX
// end-of-file record without a word of what follows; and which wraps a HEX record at 4 GiB and
// takes an S3 record past it without telling its caller.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "bringup/Error.h"
#include "bringup/image/Image.h"

namespace kvx::bringup {

class ImageFile;

class RecordParser {
 public:
  /// `count` bytes (at most 255) that the data record on `line` puts at `address`, an address of
  /// the file's own space, before any offset; `bytes` stay valid until the next call.
  struct Record {
    uint64_t line = 0;
    uint64_t address = 0;
    const uint8_t* bytes = nullptr;
    size_t count = 0;
  };

  /// Reads `file` as `format`, kIntelHex or kSRecord, with warnings to `warn` when it is set.
  RecordParser(ImageFile& file, ImageFormat format, Image::Warn warn);

  /// The next data record that holds bytes; false after the last. Throws malformed() at a fault.
  bool next(Record& record);
  /// The start address of the records read so far (HEX 03 or 05, S-record S7 to S9), if any.
  std::optional<uint64_t> entryPoint() const { return m_entry; }

  /// The file Error "cannot read NAME as FORMAT", with `reason`: for the checks of the image too.
  Error malformed(const std::string& reason) const;

 private:
  /// The next line, without its end and the blanks around it; false at the end of the file.
  bool nextLine(std::string_view& line);
  /// The bytes that `digits` spell into m_bytes, each checked: the count, the sum.
  void decode(std::string_view digits, size_t column);
  /// Each reads the record in m_bytes: true when it is a data record with bytes, into `record`.
  bool intelRecord(Record& record);
  bool sRecord(char type, Record& record);
  /// Warns of what follows the end, or that the end never came.
  void finish();
  /// "line N: " for the line just read.
  std::string here() const;
  void warn(const std::string& warning) const;

  ImageFile& m_file;
  ImageFormat m_format;
  Image::Warn m_warn;

  /// The piece of the file being cut into lines, [m_begin, m_end) still to cut; a line that runs
  /// over the end of a piece is put together in m_partial, and handed out from m_line.
  std::vector<uint8_t> m_piece;
  size_t m_begin = 0;
  size_t m_end = 0;
  uint64_t m_offset = 0;
  bool m_atEnd = false;
  std::string m_partial;
  std::string m_line;
  uint64_t m_lineNumber = 0;

  std::vector<uint8_t> m_bytes;
  /// What the records so far have set: the base that data addresses add to (HEX 02 and 04
  /// records; 02 makes them wrap within a 64 KiB segment), the entry point, the data records
  /// counted (S-record S5 and S6 check it), and the line of the end record once it came.
  uint64_t m_base = 0;
  bool m_segmented = false;
  std::optional<uint64_t> m_entry;
  uint64_t m_dataRecords = 0;
  bool m_seenRecord = false;
  bool m_warnedGarbage = false;
  std::optional<uint64_t> m_endLine;
  bool m_finished = false;
};

}  // namespace kvx::bringup
