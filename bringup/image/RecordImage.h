// Intel HEX and S-record: text files whose records each put up to 255 bytes at an address. On
// top of the checks of each record, an image refuses records that overlap one another (it
// could not say which bytes the target ends up with) and records that the access width does not
// fit, naming the lines. Owns its file; single-threaded.
#pragma once

#include <vector>

#include "bringup/image/Image.h"
#include "bringup/image/ImageFile.h"
#include "bringup/image/Placement.h"

namespace kvx::bringup {

class RecordImage final : public Image {
 public:
  /// Reads `file` as `format`, kIntelHex or kSRecord. A regular file is read through here, to
  /// check it all and count its bytes, with its warnings to `warn`; a stream is checked as visit()
  /// reads it, and keeps `warn` for its warnings then.
  RecordImage(ImageFile file, ImageFormat format, const Placement& placement, Warn warn);

  // Image
  ImageFormat format() const override { return m_format; }
  std::optional<uint64_t> size() const override { return m_size; }
  bool rereadable() const override { return !m_file.isStream(); }
  std::optional<uint64_t> entryPoint() const override { return m_entry; }
  void visit(const Visitor& visitor) override;

 private:
  /// Reads the records through once, checking them all, and hands their bytes to `visitor` when
  /// it is set, records that follow on from each other put together. Sets m_size and m_entry.
  void readThrough(const Visitor* visitor, const Warn& warn);

  ImageFile m_file;
  ImageFormat m_format;
  Placement m_placement;
  Warn m_warn;
  std::optional<uint64_t> m_size;
  std::optional<uint64_t> m_entry;
  std::vector<uint8_t> m_piece;
};

}  // namespace kvx::bringup
