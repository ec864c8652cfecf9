#include "bringup/image/RawImage.h"

#include <algorithm>
#include <utility>

namespace kvx::bringup {

RawImage::RawImage(ImageFile file, const Placement& placement)
    : m_file(std::move(file)), m_placement(placement), m_piece(kPieceBytes) {
  if (const std::optional<uint64_t> length = m_file.size()) {
    m_placement.checkWidth(m_placement.place(0, *length), *length, m_file.name());
  } else if (m_placement.width() != 0 && m_placement.offset() % m_placement.width() != 0) {
    m_placement.checkWidth(m_placement.offset(), m_placement.width(), m_file.name());
  }
}

void RawImage::visit(const Visitor& visitor) {
  if (const std::optional<uint64_t> length = m_file.size()) {
    for (uint64_t done = 0; done < *length;) {
      const size_t count = static_cast<size_t>(std::min<uint64_t>(m_piece.size(), *length - done));
      m_file.readExactly(done, m_piece.data(), count);
      visitor(m_placement.offset() + done, m_piece.data(), count);
      done += count;
    }
    return;
  }
  for (uint64_t done = 0;;) {
    const size_t count = m_file.read(done, m_piece.data(), m_piece.size());
    if (count == 0) return;
    // A stream's piece comes short only at its end, which is checked before the bytes that lead
    // up to it are handed out.
    if (count < m_piece.size()) m_placement.checkWidth(m_placement.offset(), done + count, m_file.name());
    visitor(m_placement.place(done, count), m_piece.data(), count);
    done += count;
  }
}

}  // namespace kvx::bringup
