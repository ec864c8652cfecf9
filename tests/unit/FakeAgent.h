// A recording stand-in for the agent client library, linked into the unit-test program. Its ten
// C functions are exported by the test executable and so take the place of libtarget.agent.so's
// for the plug-in. It records every call with its arguments and the session it arrived in, and
// answers with statuses and bytes that a test scripts. Thread-safe.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace fake {

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

class FakeAgent {
 public:
  static FakeAgent& instance();

  /// Forgets calls and scripts and closes the session.
  void reset();
  /// Forgets the calls only.
  void clearCalls();

  std::vector<Call> calls() const;
  std::vector<Fn> functions() const;
  size_t callCount() const;
  Session session() const;

  /// Every later call of `fn` returns `status`. Unless scripted, start_session and
  /// destroy_session succeed, and every other call answers 0 while a session is open and -1
  /// otherwise.
  void setStatus(Fn fn, int32_t status);
  /// Bytes that io_read stores (its first n of them).
  void setReadBytes(const std::array<uint8_t, 8>& bytes);
  /// The value reg_read stores: 8 bytes at the destination.
  void setRegisterValue(uint64_t value);
  /// The address ddr_reserve stores, when it succeeds.
  void setReservedAddress(uint64_t address);

  // Entry points of the C functions.
  int32_t record(Call call);
  std::array<uint8_t, 8> readBytes() const;
  uint64_t registerValue() const;
  uint64_t reservedAddress() const;

 private:
  FakeAgent() = default;

  mutable std::mutex m_mutex;  // guards everything below
  std::vector<Call> m_calls;
  std::map<Fn, int32_t> m_statuses;
  Session m_session;
  std::array<uint8_t, 8> m_readBytes{};
  uint64_t m_registerValue = 0;
  uint64_t m_reservedAddress = 0;
};

/// Number of agent calls made before main() started, i.e. while the libraries were loaded.
extern size_t g_callsAtStartup;

}  // namespace fake
