// The host's handle to one agent endpoint: reads and writes target memory and registers through
// the agent library, and reserves target memory. The host owns it through
// boost::shared_ptr<TaProcess>. The agent library holds one session for the whole host process,
// so every data access first makes this process's endpoint the open session.
//
// Any host thread may call any operation. Each data access and the session switch before it run
// under one lock shared by all processes, so an access always reaches its own process's endpoint.
// The reservation operations take no lock and act on whatever session is open.
//
// Log appenders. An oversized access logs its warning on "tesk.ta.kvx" under that lock, between
// the switch and the agent call, and log4cxx calls the appenders on the accessing thread. So an
// appender must not call the plug-in: an access, activateConnection, a construction or the two
// static copies below throw boost::lock_error (resource deadlock would occur) at once, which the
// appender should catch, and the access that logged then goes on. Nor may it wait for another host
// thread, which may be waiting for the lock. An output that can be slow (network, disk) belongs
// behind log4cxx's AsyncAppender, so that no host thread waits for it under the lock.
//
// Fork. A child of the host starts with the lock free and no session open, even when another
// thread was inside an access at the fork: its first access switches, and so opens a session of
// its own (the agent library must give a child connections of its own, as the stand-in does). A
// fork never waits for an access in flight.
//
// Unloading. A process must be destroyed, and every call of the plug-in must have returned,
// before the host's last dlclose of the plug-in: both run the plug-in's code. Log records kept
// past the unload stay safe to format.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <boost/thread/mutex.hpp>

#include "agent/KVXConnection.h"
#include "vorn/ExtAddress.h"
#include "vorn/TaProcess.h"
#include "vorn/Visibility.h"

namespace vorn {

class VORN_API TaProcessKVX : public TaProcess {
 public:
  /// A process for the agent at (`address`, `port`); opens no session. Sets
  /// ExtAddress::memorySpaceIds to the one name "logger".
  TaProcessKVX(std::string address, int port);
  /// Makes no agent call: the session stays open and m_sharedConnection goes on describing it.
  ~TaProcessKVX() override;

  TaProcessKVX(const TaProcessKVX&) = delete;
  TaProcessKVX& operator=(const TaProcessKVX&) = delete;

  // Implementations of the TaProcess interface. The byte count is count * unitSize, wrapping
  // modulo 2^64. The agent moves at most 8 bytes a call: longer memory accesses and register
  // writes are cut to their first 8 bytes, never split, and draw a warning on "tesk.ta.kvx"; a
  // longer register read only draws the warning. A refusal by the agent throws vorn::Exception.
  bool write_mem(const ExtAddress& extAddress, size_t count, unsigned int unitSize,
                 const void* data) override;
  /// Overwrites the first n bytes of `buffer` (n <= 8) even when the agent refuses the read.
  bool read_mem(const ExtAddress& extAddress, size_t count, unsigned int unitSize, void* buffer) override;
  /// Not offered: returns false and touches nothing.
  bool read_piped_mem(const ExtAddress& extAddress, size_t count, unsigned int unitSize,
                      void* buffer) override;
  /// The agent always receives a full 64-bit value, zero above the data; it refuses a value with a
  /// bit set above the register's width, and the write then throws.
  bool write_register(const std::string& registerName, size_t count, unsigned int unitSize,
                      const void* data) override;
  /// `buffer` is handed to the agent library as it is. The library stores there exactly the
  /// register's width, at most 8 bytes, least significant first, and nothing past it; so `buffer`
  /// must hold 8 bytes unless the register is known to be narrower.
  bool read_register(const std::string& registerName, size_t count, unsigned int unitSize,
                     void* buffer) override;
  bool callbacksAvailable() override;
  /// 1, the process type of this access method.
  int32_t getProcessType() override;

  // Target memory reservations, in the "physical" memory space. They act on whichever session
  // is open, take no lock, log nothing and report an agent failure as false.
  /// Sets extAddress.memorySpace and stores the reserved block's address in extAddress.address.
  bool reserve_mem(size_t size, ExtAddress& extAddress);
  /// Sets extAddress.memorySpace, even when the release fails.
  bool unreserve_mem(ExtAddress& extAddress);
  bool unreserve_all();

  /// Makes this process's endpoint the open agent session, closing and reopening the session
  /// when m_sharedConnection names another endpoint. Reports no failure: a session that could
  /// not be opened shows in the access that follows.
  ///
  /// On a process for the empty address and port -1, which no agent has, it closes the session
  /// that is open and opens none: the next access through any process opens a fresh session. That
  /// is the way back to an agent that restarted under long-lived processes, safe while other
  /// threads use other processes: TaProcessKVX("", -1).activateConnection().
  void activateConnection();

  /// A copy of this process's descriptor. No lock, no agent call.
  KVXConnection getLocalConnection() const;
  /// Replaces this process's descriptor, flag included; the next access switches to it when it
  /// names another endpoint. No lock, no agent call.
  void setLocalConnection(KVXConnection connection);

  // The statics that every process shares. They are guarded by the lock shared by all processes,
  // which no caller can take, so a host reads them directly only while no other thread may make
  // an access, call activateConnection or construct a process (for example before it hands
  // processes to other threads). At any other time it reads them through the two copies below.

  /// The endpoint of the session that was opened last, with the flag of that attempt.
  static KVXConnection m_sharedConnection;
  /// A copy of m_sharedConnection, taken under the shared lock; safe at any time.
  static KVXConnection sharedConnection();
  /// A copy of ExtAddress::memorySpaceIds, taken under the shared lock that every construction
  /// replaces it under; safe at any time.
  static std::vector<std::string> memorySpaces();

 private:
  /// activateConnection for a caller that already holds the shared lock.
  void activateConnectionLocked();

  KVXConnection m_localConnection;
  /// Held only inside activateConnection, always after the shared lock.
  boost::mutex m_mutex;
};

}  // namespace vorn
