#include "sim/RegisterFile.h"

#include <cstring>
#include <iterator>

namespace kvx::sim {

namespace {

// The special registers follow the general ones, in this order.
constexpr const char* kSpecialNames[] = {"pc", "sp", "ra", "ps"};

}  // namespace

bool RegisterFile::read(const char* name, uint64_t& value) const {
  const int index = indexOf(name);
  if (index < 0) return false;
  value = m_values[static_cast<size_t>(index)];
  return true;
}

bool RegisterFile::write(const char* name, uint64_t value) {
  const int index = indexOf(name);
  if (index < 0) return false;
  m_values[static_cast<size_t>(index)] = value;
  return true;
}

int RegisterFile::indexOf(const char* name) {
  for (size_t i = 0; i < std::size(kSpecialNames); ++i) {
    if (std::strcmp(name, kSpecialNames[i]) == 0) return kGeneralCount + static_cast<int>(i);
  }
  // "r" and a decimal number below 64 with no leading zero: "r0", "r7", "r63", not "r07".
  if (name[0] != 'r' || name[1] < '0' || name[1] > '9') return -1;
  if (name[2] == '\0') return name[1] - '0';
  if (name[1] == '0' || name[2] < '0' || name[2] > '9' || name[3] != '\0') return -1;
  const int number = (name[1] - '0') * 10 + (name[2] - '0');
  return number < kGeneralCount ? number : -1;
}

}  // namespace kvx::sim
