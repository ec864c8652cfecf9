#include "bringup/image/Placement.h"

#include <limits>

#include "bringup/Error.h"
#include "bringup/Numbers.h"
#include "bringup/Ranges.h"
#include "bringup/image/Image.h"

namespace kvx::bringup {

Placement::Placement(const ImageOptions& options)
    : m_offset(options.address.value_or(0)), m_width(options.width) {
  if (m_width != 0 && m_width != 1 && m_width != 2 && m_width != 4 && m_width != 8) {
    throw usageError("invalid width " + std::to_string(m_width) + " (1, 2, 4 or 8)");
  }
}

uint64_t Placement::place(uint64_t fileAddress, uint64_t length) const {
  if (fileAddress > std::numeric_limits<uint64_t>::max() - m_offset) {
    throw usageError("the " + std::to_string(length) + " bytes at " + hexAddress(fileAddress) + " + " +
                     hexAddress(m_offset) + " run past the end of the 64-bit address space");
  }
  checkedRange(m_offset + fileAddress, length);
  return m_offset + fileAddress;
}

std::optional<uint64_t> Placement::placeEntry(std::optional<uint64_t> entry) const {
  if (entry && *entry > std::numeric_limits<uint64_t>::max() - m_offset) {
    throw usageError("the entry point " + hexAddress(*entry) + " + " + hexAddress(m_offset) +
                     " runs past the end of the 64-bit address space");
  }
  return entry ? std::optional<uint64_t>(*entry + m_offset) : std::nullopt;
}

void Placement::checkWidth(uint64_t address, uint64_t length, const std::string& record) const {
  if (m_width == 0 || length == 0 || (address % m_width == 0 && length % m_width == 0)) return;
  throw usageError(record + " goes to " + addressRange(address, length) + ": accesses of " +
                   byteCount(m_width) + " need a start and an end on a multiple of " +
                   std::to_string(m_width));
}

std::string addressRange(uint64_t address, uint64_t length) {
  return hexAddress(address) + "-" + hexAddress(address + (length - 1));
}

}  // namespace kvx::bringup
