// A recording stand-in for the agent client library, linked into the unit-test programs. Its ten
// C functions are exported by the test executable and so take the place of libtarget.agent.so's
// for the plug-in. It records every call with its arguments and the session it arrived in, and
// answers as a test scripts it. Thread-safe.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace kvx::test {

enum class Fn {
  StartSession,
  DestroySession,
  GetSockStatus,
  IoWrite,
  IoRead,
  RegWrite,
  RegRead,
  DdrReserve,
  DdrUnreserve,
  DdrUnreserveAll,
};

/// The session the fake holds: opened by a successful start_session, closed by destroy_session.
struct Session {
  bool open = false;
  std::string address;
  int32_t port = 0;
};

/// One call as the agent library saw it. Fields a function does not take stay zero or empty.
struct Call {
  Call(Fn function, std::string name = "", int32_t portNumber = 0, uint64_t at = 0, uint64_t word = 0,
       uint32_t bytes = 0, const void* where = nullptr)
      : fn(function),
        text(std::move(name)),
        port(portNumber),
        address(at),
        value(word),
        size(bytes),
        pointer(where) {}

  Fn fn;
  std::string text;               ///< start_session's address, or a register name
  int32_t port = 0;               ///< start_session's port
  uint64_t address = 0;           ///< io_*, ddr_unreserve
  uint64_t value = 0;             ///< io_write, reg_write; ddr_reserve's size
  uint32_t size = 0;              ///< io_*
  const void* pointer = nullptr;  ///< io_read's buffer, reg_read's destination, ddr_reserve's result
  Session session;                ///< the session when the call arrived
};

/// How the fake answers. Unless a status is scripted, start_session and destroy_session succeed,
/// and every other call answers 0 while a session is open and -1 otherwise, as the library does.
struct Script {
  std::map<Fn, int32_t> statuses;
  std::array<uint8_t, 8> readBytes{};  ///< io_read stores its first n, whatever the status
  uint64_t reservedAddress = 0;        ///< ddr_reserve stores it when it succeeds
};

class FakeAgent {
 public:
  static FakeAgent& instance();

  /// Forgets calls and script and closes the session.
  void reset();
  /// Forgets the calls only.
  void clearCalls();

  std::vector<Call> calls() const;
  std::vector<Fn> functions() const;
  Session session() const;

  /// Every later call of `fn` returns `status`.
  void setStatus(Fn fn, int32_t status);
  void setReadBytes(const std::array<uint8_t, 8>& bytes);
  void setReservedAddress(uint64_t address);

  /// Records `call`, and returns its status and the script it was answered from.
  std::pair<int32_t, Script> record(Call call);

 private:
  FakeAgent() = default;

  mutable std::mutex m_mutex;  // guards everything below
  std::vector<Call> m_calls;
  Script m_script;
  Session m_session;
};

/// Number of agent calls made before main() started, i.e. while the libraries were loaded.
extern size_t g_callsAtStartup;

}  // namespace kvx::test
