// A failure on the target or on the way to it, in the user's terms: what was attempted ("cannot
// read 4 bytes at 0x108") and why ("access denied: the agent closes this range to accesses").
// kvx-ta exits with status 1 for it; a UsageError, raised before anything is reached, is 2.
#pragma once

#include <stdexcept>
#include <string>

namespace kvx::cli {

class Failure : public std::runtime_error {
 public:
  /// `detail` is what lies beneath, such as the plug-in's own message and source location; it is
  /// shown only with --verbose.
  Failure(std::string attempted, std::string reason, std::string detail = "")
      : std::runtime_error(attempted + ": " + reason),
        m_attempted(std::move(attempted)),
        m_reason(std::move(reason)),
        m_detail(std::move(detail)) {}

  const std::string& attempted() const { return m_attempted; }
  const std::string& reason() const { return m_reason; }
  const std::string& detail() const { return m_detail; }

 private:
  std::string m_attempted;
  std::string m_reason;
  std::string m_detail;
};

}  // namespace kvx::cli
