#include "platform/agent/ConnectionPool.h"

#include <sys/resource.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

namespace kvx::agent {
namespace {

/// FNV-1a: a few nanoseconds for an address, and different for the addresses a host tells apart.
uint32_t hashOf(const char* address) {
  uint32_t hash = 2166136261u;
  for (const char* c = address; *c != '\0'; ++c) hash = (hash ^ static_cast<uint8_t>(*c)) * 16777619u;
  return hash;
}

/// A quarter of the descriptors this process may open, and never fewer than kMinLimit.
size_t descriptorBound() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return ConnectionPool::kMinLimit;
  if (limit.rlim_cur == RLIM_INFINITY) return size_t{1} << 16;
  return std::max<size_t>(ConnectionPool::kMinLimit, static_cast<size_t>(limit.rlim_cur / 4));
}

}  // namespace

ConnectionPool::Connection ConnectionPool::take(const char* address, int32_t port) {
  const uint32_t hash = hashOf(address);
  for (size_t i = 0; i < m_size; ++i) {
    const Slot& slot = m_storage->slots[i];
    if (slot.port == port && slot.addressHash == hash && std::strcmp(m_storage->addresses[i], address) == 0) {
      return removeAt(i);
    }
  }
  return {};
}

ConnectionPool::Connection ConnectionPool::park(Connection connection, const char* address, int32_t port,
                                                Clock::time_point now) {
  if (m_bound == 0 || now - m_boundReadAt >= kBoundRefresh) {
    m_bound = descriptorBound();
    m_boundReadAt = now;
  }
  Connection leaving;
  if (m_size >= m_bound || (m_size == capacity() && !grow())) {
    if (m_size == 0) return connection;  // no storage at all: it cannot stay
    size_t oldest = 0;
    for (size_t i = 1; i < m_size; ++i) {
      if (m_storage->slots[i].since < m_storage->slots[oldest].since) oldest = i;
    }
    leaving = removeAt(oldest);
  }
  if (m_size == 0) m_oldestSince = now;
  m_storage->slots[m_size] = Slot{connection.fd, port, hashOf(address), connection.nextId, now};
  std::strcpy(m_storage->addresses[m_size], address);
  ++m_size;
  return leaving;
}

ConnectionPool::Connection ConnectionPool::takeExpired(Clock::time_point now) {
  if (m_size == 0 || now - m_oldestSince < kIdleLimit) return {};
  Clock::time_point oldest = now;
  for (size_t i = 0; i < m_size; ++i) {
    if (now - m_storage->slots[i].since >= kIdleLimit) return removeAt(i);
    oldest = std::min(oldest, m_storage->slots[i].since);
  }
  m_oldestSince = oldest;
  return {};
}

ConnectionPool::Connection ConnectionPool::takeAny() {
  return m_size == 0 ? Connection{} : removeAt(m_size - 1);
}

void ConnectionPool::forget() {
  m_size = 0;
  m_bound = 0;
}

void ConnectionPool::release() {
  std::free(m_storage);
  m_storage = nullptr;
  m_size = 0;
}

bool ConnectionPool::grow() {
  if (capacity() >= m_bound) return false;
  const size_t wanted = std::min(m_bound, std::max<size_t>(kMinLimit, 2 * capacity()));
  // One block: the header, the slots, then the addresses, each part aligned as its type needs.
  const size_t slotsAt = (sizeof(Storage) + alignof(Slot) - 1) / alignof(Slot) * alignof(Slot);
  const size_t addressesAt = slotsAt + wanted * sizeof(Slot);
  auto* block = static_cast<unsigned char*>(std::malloc(addressesAt + wanted * kMaxAddress));
  if (block == nullptr) return false;
  auto* storage = new (block) Storage{wanted, reinterpret_cast<Slot*>(block + slotsAt),
                                      reinterpret_cast<char(*)[kMaxAddress]>(block + addressesAt)};
  if (m_size != 0) {
    std::memcpy(storage->slots, m_storage->slots, m_size * sizeof(Slot));
    std::memcpy(storage->addresses, m_storage->addresses, m_size * kMaxAddress);
  }
  // Replaced by one store, and freed only after it: a child forked meanwhile holds either whole.
  Storage* const old = m_storage;
  m_storage = storage;
  std::free(old);
  return true;
}

ConnectionPool::Connection ConnectionPool::removeAt(size_t index) {
  const Connection taken{m_storage->slots[index].fd, m_storage->slots[index].nextId};
  --m_size;
  if (index != m_size) {
    m_storage->slots[index] = m_storage->slots[m_size];
    std::memcpy(m_storage->addresses[index], m_storage->addresses[m_size],
                std::strlen(m_storage->addresses[m_size]) + 1);
  }
  return taken;
}

}  // namespace kvx::agent
