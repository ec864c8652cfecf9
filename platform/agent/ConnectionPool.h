// The parked connections of the agent session: connections to agents whose sessions have ended,
// kept open, keyed by address and port, for a session with that agent to come.
//
// The pool holds as many as the host uses: one per endpoint that it has switched away from in
// the last kIdleLimit, for any number of endpoints, up to a quarter of the process's descriptor
// limit (RLIMIT_NOFILE, read at most once a second), so that the host keeps the rest. Past that
// bound the connection parked longest makes room. Lookups compare a port and a hash before any address,
// so that a switch among hundreds of agents costs well under a microsecond.
//
// Bookkeeping only: the pool never reads, writes or closes a socket. What leaves it is handed to
// the caller, who says Goodbye on it and closes it. Not thread-safe: the session's caller
// serialises every call. Trivially destructible, as the session is; release() frees its storage.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace kvx::agent {

/// The longest address a session is opened with, NUL included: a host name at most.
constexpr size_t kMaxAddress = 1025;

class ConnectionPool {
 public:
  using Clock = std::chrono::steady_clock;

  /// How long a connection may stay parked unused.
  static constexpr std::chrono::seconds kIdleLimit{30};
  /// The pool may always hold this many, whatever the descriptor limit.
  static constexpr size_t kMinLimit = 4;

  /// A connection as the session resumes it: its descriptor (-1 for none) and the next request id.
  struct Connection {
    int fd = -1;
    uint32_t nextId = 0;
  };

  constexpr ConnectionPool() = default;
  ConnectionPool(const ConnectionPool&) = delete;
  ConnectionPool& operator=(const ConnectionPool&) = delete;

  /// Takes the connection parked for (`address`, `port`) out of the pool; fd -1 when none is.
  Connection take(const char* address, int32_t port);
  /// Parks `connection` for (`address`, `port`) at `now`. Returns the connection that left to make
  /// room, if one had to (fd -1 otherwise).
  Connection park(Connection connection, const char* address, int32_t port, Clock::time_point now);
  /// Takes out one connection idle for kIdleLimit by `now`; fd -1 when there is none. Cheap when
  /// none can be: the pool knows when its oldest was parked.
  Connection takeExpired(Clock::time_point now);
  /// Takes out any one connection; fd -1 when the pool is empty.
  Connection takeAny();
  /// How many connections are parked.
  size_t size() const { return m_size; }

  /// Empties the pool without handing anything out: for a forked child, whose connections are the
  /// parent's. Safe even when a thread of the parent was inside a call at the fork: the storage is
  /// replaced by one pointer, so the child finds the old storage or the new, whole either way.
  void forget();
  /// Frees the storage of an empty pool.
  void release();

 private:
  /// What a lookup reads, kept apart from the addresses so that a scan stays in a few cache lines.
  struct Slot {
    int fd;
    int32_t port;
    uint32_t addressHash;
    uint32_t nextId;
    Clock::time_point since;
  };

  /// The slots and their addresses, in one block, replaced whole as the pool grows.
  struct Storage {
    size_t capacity;
    Slot* slots;
    char (*addresses)[kMaxAddress];
  };

  size_t capacity() const { return m_storage == nullptr ? 0 : m_storage->capacity; }
  /// Grows the storage, within m_bound; false when it may not or cannot.
  bool grow();
  Connection removeAt(size_t index);

  Storage* m_storage = nullptr;
  size_t m_size = 0;
  /// A quarter of the descriptor limit, read again at a park once kBoundRefresh has passed, so
  /// that a host that lowers its limit sees the pool shrink as connections are parked.
  size_t m_bound = 0;
  Clock::time_point m_boundReadAt{};
  static constexpr std::chrono::seconds kBoundRefresh{1};
  /// No slot was parked before this: takeExpired() has nothing to look for until kIdleLimit after it.
  Clock::time_point m_oldestSince{};
};

}  // namespace kvx::agent
