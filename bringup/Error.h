// The one error of the bring-up library and of the front ends over it: what was attempted, in
// the user's terms ("cannot read 4 bytes at 0x108"), why ("access denied: the agent closes this
// range to accesses"), and the kind of failure, which decides how a front end reacts (kvx-ta's
// exit status, the Python exception). When an agent call failed, the error also names the call
// and its status. A plain value; copies share nothing.
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>

namespace kvx::bringup {

class Error : public std::runtime_error {
 public:
  enum class Kind {
    kUsage,        ///< the request itself is wrong; nothing was touched for it
    kTarget,       ///< the target or its agent refused
    kConnection,   ///< the agent could not be reached, or the session with it was lost
    kFile,         ///< a file, or the output, could not be read or written
    kInterrupted,  ///< a signal stopped the operation
  };

  /// The agent call that failed: its name ("io_read"), the status it returned, and what it was
  /// asked to reach: the address of a memory access, the name of a register.
  struct AgentCall {
    std::string name;
    int32_t status = 0;
    std::optional<uint64_t> address;
    std::optional<std::string> registerName;
  };

  /// Where in a script the failed command stands.
  struct Location {
    std::string file;
    unsigned line = 0;
  };

  /// `detail` is what lies beneath, such as the plug-in's own message and source location, for
  /// those who ask for it (kvx-ta --verbose).
  Error(Kind kind, std::string attempted, std::string reason = "", std::string detail = "",
        std::optional<AgentCall> call = std::nullopt);

  Kind kind() const { return m_kind; }
  const std::string& attempted() const { return m_attempted; }
  /// Empty for a usage error, whose attempted() says it all.
  const std::string& reason() const { return m_reason; }
  const std::string& detail() const { return m_detail; }
  const std::optional<AgentCall>& call() const { return m_call; }
  const std::optional<Location>& location() const { return m_location; }

  /// The same error, with `suffix` after what was attempted (" (the worker for 0x0-0xfff)").
  Error suffixed(const std::string& suffix) const;
  /// The same error, with `more` after the reason ("; 4096 bytes were written").
  Error explained(const std::string& more) const;
  /// The same error, located at `line` of the script `file`.
  Error locatedAt(const std::string& file, unsigned line) const;

  /// "usage", "target", "connection", "file" or "interrupted".
  static const char* kindName(Kind kind);

 private:
  Kind m_kind;
  std::string m_attempted;
  std::string m_reason;
  std::string m_detail;
  std::optional<AgentCall> m_call;
  std::optional<Location> m_location;
};

/// A usage error: `message` names the argument and what is wrong with it.
Error usageError(std::string message);

/// A file error: "cannot WHAT 'PATH'" and the reason `error` (an errno value) gives.
Error fileError(const std::string& what, const std::string& path, int error);

}  // namespace kvx::bringup
