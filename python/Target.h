// One agent endpoint as the Python host reaches it: the process that the plug-in's manager hands
// out for a configuration block naming that endpoint, and every access of the Python API made
// through it. Knows nothing of Python; the bindings call it with the interpreter's lock released.
//
// Any thread may call any operation on any instance. Memory and register accesses rely on the
// plug-in's session lock to reach this endpoint. Reservations act on whichever agent session is
// open, so they run under a lock of this module that accesses share and reservations hold alone:
// no other instance's access can switch the session between the switch to this endpoint and the
// reservation.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include <boost/shared_ptr.hpp>

namespace vorn {
class TaProcessKVX;
}  // namespace vorn

namespace kvx::python {

class Target {
 public:
  /// Obtains a process for the agent at (`host`, `port`) from the manager; opens no session.
  /// Throws TargetError when the manager gives none.
  Target(const std::string& host, uint16_t port);
  ~Target();

  Target(const Target&) = delete;
  Target& operator=(const Target&) = delete;

  // Every access below throws TargetError, with the plug-in's message, when the agent refuses or
  // is gone; the agent library gives up on an agent that does not answer after its deadline.

  /// `length` bytes from `address` on into `bytes`, in accesses of at most 8 bytes, in address
  /// order, each after the first aligned to 8 bytes. The caller keeps address + length within
  /// the 64-bit address space.
  void read(uint64_t address, uint8_t* bytes, uint64_t length);
  void write(uint64_t address, const uint8_t* bytes, uint64_t length);
  /// One access of `size` bytes (1 to 8), little-endian.
  uint64_t readUnsigned(uint64_t address, unsigned size);
  void writeUnsigned(uint64_t address, uint64_t value, unsigned size);
  /// One read_mem call of count * unitSize bytes, as a host makes it: the plug-in moves at most
  /// 8 bytes, stores them in `bytes`, and warns of a longer request. Returns the bytes moved.
  size_t readOnce(uint64_t address, size_t count, unsigned unitSize, uint8_t* bytes);

  /// A register's value. The agent library stores exactly the register's width into a zeroed
  /// 8-byte buffer, so the bytes above it stay zero and the value needs no width.
  uint64_t readRegister(const std::string& name);
  /// Hands the agent the full 64 bits; it refuses a value wider than the register.
  void writeRegister(const std::string& name, uint64_t value);

  /// The address of a new block of `size` bytes. Throws TargetError when there is no room or the
  /// agent is gone.
  uint64_t reserve(uint64_t size);
  /// False when `address` starts no reserved block; throws TargetError when the agent is gone.
  bool unreserve(uint64_t address);
  /// False when the agent refuses; throws TargetError when it is gone.
  bool unreserveAll();

 private:
  /// The error for a failed reservation operation: that the agent is gone, when this endpoint's
  /// session is down. Called with the reservation lock held exclusively.
  void throwIfAgentGone(const char* attempted);

  std::string m_endpoint;
  boost::shared_ptr<vorn::TaProcessKVX> m_process;
  /// The memory space that accesses name, as the process announced it.
  std::string m_memorySpace;
};

}  // namespace kvx::python
