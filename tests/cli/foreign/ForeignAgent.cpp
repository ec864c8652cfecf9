// Another libtarget.agent.so: the same ten functions over another wire, a line of text each way,
// with statuses of its own. Built for the test that drops it beside the plug-in, as a real agent
// library would be, to check that kvx-ta neither speaks the stand-in's wire to it nor reads
// meaning into its statuses. Only start_session, destroy_session, get_sock_status, io_read and
// io_write do anything; the rest refuse at once without a word on the wire.
//
// Requests: "hello", "read ADDR SIZE", "write ADDR VALUE SIZE", in hex. Replies: "ok [HEX]" or
// "no STATUS". Not thread-safe: the plug-in calls it under its session lock.

#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#define FOREIGN_API extern "C" __attribute__((visibility("default")))

namespace {

/// What this library returns for what it does not do, and for a lost connection.
constexpr int32_t kUnsupported = 99;
constexpr int32_t kNoConnection = 98;

int g_fd = -1;

bool sendLine(const std::string& line) {
  return g_fd >= 0 &&
         ::send(g_fd, line.data(), line.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(line.size());
}

/// The next line from the agent, without its newline; false when the connection ends.
bool receiveLine(std::string& line) {
  line.clear();
  for (char c; g_fd >= 0;) {
    if (::recv(g_fd, &c, 1, 0) != 1) return false;
    if (c == '\n') return true;
    line += c;
  }
  return false;
}

/// Sends `request` and returns 0 with the reply's payload in `payload`, or the agent's status.
int32_t exchange(const std::string& request, std::string& payload) {
  std::string reply;
  if (!sendLine(request + "\n") || !receiveLine(reply)) return kNoConnection;
  if (reply.rfind("ok", 0) == 0) {
    payload = reply.size() > 3 ? reply.substr(3) : "";
    return 0;
  }
  return reply.rfind("no ", 0) == 0 ? static_cast<int32_t>(std::strtol(reply.c_str() + 3, nullptr, 10))
                                    : kNoConnection;
}

}  // namespace

FOREIGN_API int32_t start_session(const char* address, int32_t port) {
  if (g_fd >= 0) ::close(g_fd);
  g_fd = -1;
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (address == nullptr || port <= 0 ||
      ::getaddrinfo(address, std::to_string(port).c_str(), &hints, &found) != 0) {
    return kNoConnection;
  }
  g_fd = ::socket(found->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (g_fd >= 0 && ::connect(g_fd, found->ai_addr, found->ai_addrlen) != 0) {
    ::close(g_fd);
    g_fd = -1;
  }
  ::freeaddrinfo(found);
  std::string payload;
  return g_fd < 0 ? kNoConnection : exchange("hello", payload);
}

FOREIGN_API int32_t destroy_session(void) {
  if (g_fd >= 0) ::close(g_fd);
  g_fd = -1;
  return 0;
}

FOREIGN_API int32_t get_sock_status(void) { return g_fd >= 0 ? 0 : kNoConnection; }

FOREIGN_API int32_t io_read(uint64_t address, uint8_t* buffer, uint32_t size) {
  char request[64];
  std::snprintf(request, sizeof request, "read %" PRIx64 " %" PRIx32, address, size);
  std::string payload;
  const int32_t status = exchange(request, payload);
  if (status == 0) {
    const uint64_t value = std::strtoull(payload.c_str(), nullptr, 16);
    std::memcpy(buffer, &value, size);
  }
  return status;
}

FOREIGN_API int32_t io_write(uint64_t address, uint64_t value, uint32_t size) {
  char request[80];
  std::snprintf(request, sizeof request, "write %" PRIx64 " %" PRIx64 " %" PRIx32, address, value, size);
  std::string payload;
  return exchange(request, payload);
}

FOREIGN_API int32_t reg_write(const char*, uint64_t) { return kUnsupported; }
FOREIGN_API int32_t reg_read(const char*, void*) { return kUnsupported; }
FOREIGN_API int32_t ddr_reserve(uint64_t, uint64_t*) { return kUnsupported; }
FOREIGN_API int32_t ddr_unreserve(uint64_t) { return kUnsupported; }
FOREIGN_API int32_t ddr_unreserve_all(void) { return kUnsupported; }
