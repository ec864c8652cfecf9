// The ten functions of libtarget.agent.so over a TCP connection to a target agent.
//
// The library holds one session for the whole process. Every function checks its arguments
// first, then takes the session lock for exactly one request and its reply, so concurrent
// callers never interleave frames on the socket or receive each other's replies. A child that
// fork() makes never touches its parent's connections: its first call opens its own.

#include "agent/TargetAgent.h"

#include <pthread.h>

#include <cassert>
#include <cstring>
#include <mutex>
#include <new>

#include "platform/agent/AgentSession.h"
#include "platform/agent/AgentStatus.h"
#include "platform/protocol/AgentProtocol.h"

#define TA_AGENT_API extern "C" __attribute__((visibility("default")))

namespace {

using kvx::agent::AgentSession;
using kvx::agent::Status;
namespace protocol = kvx::protocol;

// g_mutex guards g_session; it is held for one whole call, from sending until the reply is in.
std::mutex g_mutex;
AgentSession g_session;

int32_t code(Status status) { return static_cast<int32_t>(status); }

/// At the library's unload, or the process's normal end, the agents hear Goodbye on every
/// connection the session holds. A thread still in a call then keeps its connection: the
/// kernel closes it.
__attribute__((destructor)) void closeConnections() {
  std::unique_lock<std::mutex> lock(g_mutex, std::try_to_lock);
  if (lock.owns_lock()) g_session.closeAll();
}

/// In a child that fork() made. g_mutex held at the fork means a thread of the parent was inside
/// a call; it does not exist here, so the lock is made anew and the session's state is not trusted.
void leaveConnectionsToParent() {
  if (g_mutex.try_lock()) {
    g_session.leaveToParent(true);
    g_mutex.unlock();
    return;
  }
  new (&g_mutex) std::mutex;
  g_session.leaveToParent(false);
}

/// Registered as the library is loaded; the C library forgets the handler when it is unloaded.
__attribute__((constructor)) void registerForkHandler() {
  ::pthread_atfork(nullptr, nullptr, leaveConnectionsToParent);
}

int32_t transact(protocol::Request& request, protocol::Reply& reply) {
  std::lock_guard<std::mutex> lock(g_mutex);
  return code(g_session.transact(request, reply));
}

/// Fills the request's name from a caller's NUL-terminated text; false when it does not fit the
/// wire's bounds.
bool setName(protocol::Request& request, const char* name) {
  if (name == nullptr) return false;
  const size_t length = ::strnlen(name, protocol::kMaxRegisterName + 1);
  if (length == 0 || length > protocol::kMaxRegisterName) return false;
  std::memcpy(request.name, name, length);
  request.nameLength = static_cast<uint8_t>(length);
  return true;
}

}  // namespace

TA_AGENT_API int32_t start_session(const char* address, int32_t port) {
  std::lock_guard<std::mutex> lock(g_mutex);
  return code(g_session.open(address, port));
}

TA_AGENT_API int32_t destroy_session(void) {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_session.close();
  return code(Status::kOk);
}

TA_AGENT_API int32_t get_sock_status(void) {
  std::lock_guard<std::mutex> lock(g_mutex);
  return code(g_session.checkConnection());
}

TA_AGENT_API int32_t io_write(uint64_t address, uint64_t value, uint32_t size) {
  if (size > protocol::kMaxAccessSize) return code(Status::kInvalidArgument);
  protocol::Request request;
  request.opcode = protocol::Opcode::kIoWrite;
  request.value = address;
  request.size = size;
  // The value's first `size` bytes in memory order are the data.
  std::memcpy(request.data, &value, size);
  protocol::Reply reply;
  return transact(request, reply);
}

TA_AGENT_API int32_t io_read(uint64_t address, uint8_t* buffer, uint32_t size) {
  if (buffer == nullptr || size > protocol::kMaxAccessSize) return code(Status::kInvalidArgument);
  protocol::Request request;
  request.opcode = protocol::Opcode::kIoRead;
  request.value = address;
  request.size = size;
  protocol::Reply reply;
  const int32_t status = transact(request, reply);
  // Exactly `size` bytes, and only on success: a failed read never hands back zeros as data.
  if (status == code(Status::kOk)) std::memcpy(buffer, reply.data, size);
  return status;
}

TA_AGENT_API int32_t reg_write(const char* name, uint64_t value) {
  protocol::Request request;
  if (!setName(request, name)) return code(Status::kInvalidArgument);
  request.opcode = protocol::Opcode::kRegWrite;
  request.value = value;
  protocol::Reply reply;
  return transact(request, reply);
}

TA_AGENT_API int32_t reg_read(const char* name, void* destination) {
  protocol::Request request;
  if (destination == nullptr || !setName(request, name)) return code(Status::kInvalidArgument);
  request.opcode = protocol::Opcode::kRegRead;
  protocol::Reply reply;
  const int32_t status = transact(request, reply);
  // Exactly the register's width, least significant byte first: a host that reads a 32-bit
  // register into a 32-bit variable must not have the bytes after it overwritten. The decoder
  // has checked that the width is 1 to 8.
  if (status == code(Status::kOk)) {
    assert(reply.width >= 1 && reply.width <= protocol::kMaxRegisterWidth);
    uint8_t bytes[sizeof reply.value];
    for (size_t i = 0; i < sizeof bytes; ++i) bytes[i] = static_cast<uint8_t>(reply.value >> (8 * i));
    std::memcpy(destination, bytes, reply.width);
  }
  return status;
}

TA_AGENT_API int32_t ddr_reserve(uint64_t size, uint64_t* address) {
  if (address == nullptr) return code(Status::kInvalidArgument);
  protocol::Request request;
  request.opcode = protocol::Opcode::kDdrReserve;
  request.value = size;
  protocol::Reply reply;
  const int32_t status = transact(request, reply);
  if (status == code(Status::kOk)) *address = reply.value;
  return status;
}

TA_AGENT_API int32_t ddr_unreserve(uint64_t address) {
  protocol::Request request;
  request.opcode = protocol::Opcode::kDdrUnreserve;
  request.value = address;
  protocol::Reply reply;
  return transact(request, reply);
}

TA_AGENT_API int32_t ddr_unreserve_all(void) {
  protocol::Request request;
  request.opcode = protocol::Opcode::kDdrUnreserveAll;
  protocol::Reply reply;
  return transact(request, reply);
}
