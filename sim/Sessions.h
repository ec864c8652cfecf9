// Who holds a session with the simulated agent. Without --exclusive any number of clients hold
// one at once; with it, one at a time, and another client's handshake is refused as busy while a
// session is open.
//
// A client that ends its session (EndSession) keeps its connection, parked, and its next request
// on it opens the session again. A parked session never keeps another client out: the agent gives
// the session to another client only after closing the parked connections, which is how their
// hosts learn that it is gone. So a parked connection that is still open can always be resumed.
// Not thread-safe: the server's one thread calls it.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>

namespace kvx::sim {

class Sessions {
 public:
  using ClientId = uint64_t;

  explicit Sessions(bool exclusive) : m_exclusive(exclusive) {}

  Sessions(const Sessions&) = delete;
  Sessions& operator=(const Sessions&) = delete;

  /// A new client, with what closes its connection should the agent give its parked session away,
  /// and what reads, before another client is refused, an end of its session that it has sent and
  /// the agent has not read yet (a host that switched away, then told another host to come in).
  ClientId join(std::function<void()> closeConnection, std::function<void()> readPendingEnd);
  /// The client's connection has ended; its session, open or parked, ends with it.
  void leave(ClientId client);

  /// Opens the client's session: at its handshake, or at its first request after end(). False
  /// when the agent is exclusive and another client's session is open. Otherwise the parked
  /// sessions of other clients of an exclusive agent are closed first, their connections with them.
  bool open(ClientId client);
  /// Ends the client's session and parks its connection.
  void end(ClientId client);

 private:
  struct Client {
    std::function<void()> closeConnection;
    std::function<void()> readPendingEnd;
    bool parked = false;
  };

  bool m_exclusive;
  std::map<ClientId, Client> m_clients;
  ClientId m_nextId = 1;
  /// The client whose session is open, on an exclusive agent.
  std::optional<ClientId> m_holder;
};

}  // namespace kvx::sim
