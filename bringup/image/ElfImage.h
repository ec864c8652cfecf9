// ELF: the PT_LOAD segments of an executable, in program header order, each the p_filesz bytes
// that the file holds, at its physical address (p_paddr) or, when asked, its virtual one
// (p_vaddr); the rest of p_memsz, such as .bss, is the program's own to clear. A file with
// nothing to load or with overlapping segments is refused, saying what was found. Needs a regular
// file, which libelf reads where it needs. Owns its file; single-threaded.
#pragma once

#include <vector>

#include "bringup/image/Image.h"
#include "bringup/image/ImageFile.h"
#include "bringup/image/Placement.h"

namespace kvx::bringup {

class ElfImage final : public Image {
 public:
  /// Reads and checks the headers of `file`, a regular file.
  ElfImage(ImageFile file, const Placement& placement, bool virtualAddresses);

  // Image
  ImageFormat format() const override { return ImageFormat::kElf; }
  std::optional<uint64_t> size() const override { return m_size; }
  bool rereadable() const override { return true; }
  std::optional<uint64_t> entryPoint() const override { return m_entry; }
  void visit(const Visitor& visitor) override;

 private:
  /// The bytes of the file from `fileOffset` on that go to target memory from `address` on.
  struct Segment {
    uint64_t address;
    uint64_t fileOffset;
    uint64_t length;
  };

  ImageFile m_file;
  std::vector<Segment> m_segments;
  uint64_t m_size = 0;
  std::optional<uint64_t> m_entry;
  std::vector<uint8_t> m_piece;
};

}  // namespace kvx::bringup
