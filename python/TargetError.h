// The failure of a target access as the Python host reports it: the plug-in's text and the
// address or register that the access named. Thrown by Target; bind() turns it into the Python
// exception ta_kvx.TargetError, which carries the same three fields.
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>

namespace pybind11 {
class module_;
}  // namespace pybind11

namespace kvx::python {

class TargetError : public std::runtime_error {
 public:
  explicit TargetError(const std::string& message, std::optional<uint64_t> address = std::nullopt,
                       std::optional<std::string> registerName = std::nullopt);

  const std::optional<uint64_t>& address() const { return m_address; }
  const std::optional<std::string>& registerName() const { return m_registerName; }

  /// Adds the Python exception TargetError (derived from Exception) to `module`, and has every
  /// TargetError that a bound function throws raised as one. Call once, while importing.
  static void bind(pybind11::module_& module);

 private:
  std::optional<uint64_t> m_address;
  std::optional<std::string> m_registerName;
};

}  // namespace kvx::python
