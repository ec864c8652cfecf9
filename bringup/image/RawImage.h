// Raw binary: the bytes of the file as they are, from the address the user gives on. The one
// format that a stream may carry without any check but the end of the address space and the
// width. Owns its file; single-threaded.
#pragma once

#include <vector>

#include "bringup/image/Image.h"
#include "bringup/image/ImageFile.h"
#include "bringup/image/Placement.h"

namespace kvx::bringup {

class RawImage final : public Image {
 public:
  /// `placement`'s offset is where the file's first byte goes. A regular file's whole range is
  /// checked here; a stream's start here, and its end when visit() reaches it.
  RawImage(ImageFile file, const Placement& placement);

  // Image
  ImageFormat format() const override { return ImageFormat::kRaw; }
  std::optional<uint64_t> size() const override { return m_file.size(); }
  bool rereadable() const override { return !m_file.isStream(); }
  std::optional<uint64_t> entryPoint() const override { return std::nullopt; }
  void visit(const Visitor& visitor) override;

 private:
  ImageFile m_file;
  Placement m_placement;
  std::vector<uint8_t> m_piece;
};

}  // namespace kvx::bringup
