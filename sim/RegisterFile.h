// The simulated target's registers: r0 to r63, pc, sp and ra, 64 bits wide, and ps, 32 bits
// wide, all zero at start. Any other name is unknown. Not thread-safe.
#pragma once

#include <array>
#include <cstdint>

#include "platform/protocol/AgentProtocol.h"

namespace kvx::sim {

class RegisterFile {
 public:
  /// False when no register has that name; otherwise `value` and `width`, in bytes, are the
  /// register's.
  bool read(const char* name, uint64_t& value, uint8_t& width) const;
  /// kUnknownRegister when no register has that name, kValueTooWide when `value` has a bit set
  /// above the register's width; the register is then unchanged.
  protocol::ReplyStatus write(const char* name, uint64_t value);

 private:
  static constexpr int kGeneralCount = 64;
  /// The index of the named register in m_values, or -1.
  static int indexOf(const char* name);
  /// The width in bytes of the register at `index`, a valid index.
  static uint8_t widthOf(int index);

  std::array<uint64_t, kGeneralCount + 4> m_values{};
};

}  // namespace kvx::sim
