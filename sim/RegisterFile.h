// The simulated target's registers: 64-bit registers r0 to r63, pc, sp, ra and ps, all zero at
// start. Any other name is unknown. Not thread-safe.
#pragma once

#include <array>
#include <cstdint>

namespace kvx::sim {

class RegisterFile {
 public:
  /// False when no register has that name.
  bool read(const char* name, uint64_t& value) const;
  /// False when no register has that name.
  bool write(const char* name, uint64_t value);

 private:
  static constexpr int kGeneralCount = 64;
  /// The index of the named register in m_values, or -1.
  static int indexOf(const char* name);

  std::array<uint64_t, kGeneralCount + 4> m_values{};
};

}  // namespace kvx::sim
