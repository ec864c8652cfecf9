#include "sim/Sessions.h"

#include <utility>
#include <vector>

namespace kvx::sim {

Sessions::ClientId Sessions::join(std::function<void()> closeConnection,
                                  std::function<void()> readPendingEnd) {
  const ClientId client = m_nextId++;
  m_clients[client] = Client{std::move(closeConnection), std::move(readPendingEnd)};
  return client;
}

void Sessions::leave(ClientId client) {
  m_clients.erase(client);
  if (m_holder == client) m_holder.reset();
}

bool Sessions::open(ClientId client) {
  if (m_exclusive) {
    // Connections are read in no particular order: the holder's end may be waiting in its socket.
    if (m_holder && *m_holder != client) m_clients[*m_holder].readPendingEnd();
    if (m_holder && *m_holder != client) return false;
    // Told first, by their connections closing: their hosts find them closed when they come back.
    std::vector<std::function<void()>> closing;
    for (auto& [id, other] : m_clients) {
      if (id == client || !other.parked) continue;
      closing.push_back(other.closeConnection);
      other.parked = false;
    }
    for (const auto& close : closing) close();
    m_holder = client;
  }
  m_clients[client].parked = false;
  return true;
}

void Sessions::end(ClientId client) {
  m_clients[client].parked = true;
  if (m_holder == client) m_holder.reset();
}

}  // namespace kvx::sim
