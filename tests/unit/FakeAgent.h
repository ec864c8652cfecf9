// A recording stand-in for the agent client library, linked into the unit-test programs. Its ten
// C functions are exported by the test executable and so take the place of libtarget.agent.so's
// for the plug-in. It records every call with its arguments and the session it arrived in, and
// answers with statuses and values that a test scripts. Thread-safe.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
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

/// One call as the agent library saw it. Fields a function does not take stay zero or empty.
struct Call {
  explicit Call(Fn function) : fn(function) {}

  Fn fn;
  std::string text;               ///< start_session's address, or a register name
  int32_t port = 0;               ///< start_session's port
  uint64_t address = 0;           ///< io_*, ddr_unreserve
  uint64_t value = 0;             ///< io_write, reg_write; ddr_reserve's size
  uint32_t size = 0;              ///< io_*
  const void* pointer = nullptr;  ///< io_read's buffer, reg_read's destination, ddr_reserve's result
  // The session when the call arrived.
  bool sessionOpen = false;
  std::string sessionAddress;
  int32_t sessionPort = 0;
};

/// The session the fake holds: opened by a successful start_session, closed by destroy_session.
struct Session {
  bool open = false;
  std::string address;
  int32_t port = 0;
};

/// What the fake answers. Unless a status is scripted, start_session and destroy_session
/// succeed, and every other call answers 0 while a session is open and -1 otherwise.
struct Script {
  std::map<Fn, int32_t> statuses;
  std::array<uint8_t, 8> readBytes{};  ///< io_read stores the first n of them
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
  /// Changes the script under the fake's lock.
  template <typename Change>
  void script(Change change) {
    std::lock_guard<std::mutex> lock(m_mutex);
    change(m_script);
  }

  /// Records `call` and answers its status; `answer` then fills the caller's output from the
  /// script, on success and failure alike, as the function would.
  template <typename Answer>
  int32_t record(Call call, Answer answer) {
    std::lock_guard<std::mutex> lock(m_mutex);
    const int32_t status = recordLocked(std::move(call));
    answer(m_script, status);
    return status;
  }
  int32_t record(Call call) {
    return record(std::move(call), [](const Script&, int32_t) {});
  }

 private:
  FakeAgent() = default;
  int32_t recordLocked(Call call);

  mutable std::mutex m_mutex;  // guards everything below
  std::vector<Call> m_calls;
  Script m_script;
  Session m_session;
};

/// Number of agent calls made before main() started, i.e. while the libraries were loaded.
extern size_t g_callsAtStartup;

}  // namespace kvx::test
