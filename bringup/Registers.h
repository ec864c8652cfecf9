// The target's registers as its architecture defines them: names and widths, so that a host can
// list them and print a value at its width without asking the agent anything. Read-only.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace kvx::bringup {

struct RegisterDescription {
  std::string name;
  unsigned bits;
};

/// r0 to r63, pc, sp and ra, 64 bits wide, then ps, 32 bits wide, in that order.
const std::vector<RegisterDescription>& registerDescriptions();

/// The width in bits of the register called `name`; none when the architecture has no such
/// register (an agent may still know it).
std::optional<unsigned> registerBits(const std::string& name);

}  // namespace kvx::bringup
