#include "bringup/Registers.h"

#include <algorithm>

namespace kvx::bringup {
namespace {

constexpr unsigned kGeneralRegisters = 64;

}  // namespace

const std::vector<RegisterDescription>& registerDescriptions() {
  static const std::vector<RegisterDescription> registers = [] {
    std::vector<RegisterDescription> all;
    for (unsigned i = 0; i < kGeneralRegisters; ++i) all.push_back({"r" + std::to_string(i), 64});
    for (const char* name : {"pc", "sp", "ra"}) all.push_back({name, 64});
    all.push_back({"ps", 32});
    return all;
  }();
  return registers;
}

std::optional<unsigned> registerBits(const std::string& name) {
  const auto& all = registerDescriptions();
  const auto found = std::find_if(all.begin(), all.end(), [&name](const RegisterDescription& description) {
    return description.name == name;
  });
  return found == all.end() ? std::nullopt : std::optional<unsigned>(found->bits);
}

}  // namespace kvx::bringup
