#include "common/Dialer.h"

#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <new>
#include <utility>

#include "common/Deadline.h"

namespace kvx::common {

/// One name lookup handed to libc's resolver threads. Everything the resolver reads or writes
/// lives in here, on the heap, because a lookup given up at its deadline goes on in a libc thread.
struct NameLookup {
  char name[NI_MAXHOST] = {};
  char service[8] = {};
  addrinfo hints{};
  gaicb request{};
  /// The next lookup on the dialer's list of abandoned ones.
  NameLookup* next = nullptr;
};

namespace {

using Clock = Dialer::Clock;

/// Frees `lookup` and its result once no resolver thread refers to it any more; until then keeps
/// it on `abandoned`.
void release(NameLookup* lookup, NameLookup*& abandoned) {
  // gai_cancel answers under the resolver's own lock: EAI_NOTCANCELED while a thread works on
  // the request; any other answer means no thread will touch it again.
  if (::gai_cancel(&lookup->request) == EAI_NOTCANCELED) {
    lookup->next = abandoned;
    abandoned = lookup;
    return;
  }
  if (::gai_error(&lookup->request) == 0 && lookup->request.ar_result != nullptr) {
    ::freeaddrinfo(lookup->request.ar_result);
  }
  delete lookup;
}

/// Looks up a host name in libc's resolver threads, waiting for the answer until `deadline`.
addrinfo* resolveName(const char* host, const char* service, Clock::time_point deadline,
                      NameLookup*& abandoned) {
  // Lookups given up earlier that have finished since are freed now.
  NameLookup* earlier = abandoned;
  abandoned = nullptr;
  while (earlier != nullptr) {
    NameLookup* lookup = earlier;
    earlier = earlier->next;
    release(lookup, abandoned);
  }

  if (std::strlen(host) >= sizeof NameLookup::name) return nullptr;
  NameLookup* lookup = new (std::nothrow) NameLookup;
  if (lookup == nullptr) return nullptr;
  std::strcpy(lookup->name, host);
  std::strcpy(lookup->service, service);
  lookup->hints.ai_family = AF_UNSPEC;
  lookup->hints.ai_socktype = SOCK_STREAM;
  lookup->hints.ai_flags = AI_NUMERICSERV;
  lookup->request.ar_name = lookup->name;
  lookup->request.ar_service = lookup->service;
  lookup->request.ar_request = &lookup->hints;
  gaicb* requests[] = {&lookup->request};
  addrinfo* found = nullptr;
  if (::getaddrinfo_a(GAI_NOWAIT, requests, 1, nullptr) == 0) {
    const gaicb* const waitList[] = {&lookup->request};
    for (;;) {
      const int state = ::gai_error(&lookup->request);
      if (state != EAI_INPROGRESS) {
        if (state == 0) std::swap(found, lookup->request.ar_result);
        break;
      }
      const auto left = std::chrono::duration_cast<std::chrono::nanoseconds>(deadline - Clock::now()).count();
      if (left <= 0) break;
      const timespec wait{static_cast<time_t>(left / 1000000000), static_cast<long>(left % 1000000000)};
      // Returns when the lookup is done, the time is up or a signal came; the loop tells which.
      (void)::gai_suspend(waitList, 1, &wait);
    }
  }
  release(lookup, abandoned);
  return found;
}

/// Waits for a non-blocking connect on `fd` to complete; its errno (0 on success), or ETIMEDOUT.
int awaitConnect(int fd, Clock::time_point deadline) {
  for (;;) {
    pollfd p{fd, POLLOUT, 0};
    const int ready = ::poll(&p, 1, remainingMs(deadline));
    if (ready > 0) break;
    if (ready == 0 && Clock::now() >= deadline) return ETIMEDOUT;
    if (ready < 0 && errno != EINTR) return errno;
  }
  int error = 0;
  socklen_t length = sizeof error;
  return ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) == 0 ? error : errno;
}

}  // namespace

Dialer::Result Dialer::dial(const char* host, int port, Clock::time_point deadline) {
  char service[8];
  std::snprintf(service, sizeof service, "%d", port);
  // A numeric address needs no resolver, so it cannot hang and costs no thread.
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
  addrinfo* found = nullptr;
  const int numeric = ::getaddrinfo(host, service, &hints, &found);
  if (numeric == EAI_NONAME) found = resolveName(host, service, deadline, m_abandoned);
  if (found == nullptr) return {-1, Error::kUnresolved, 0};

  Result result{-1, Error::kFailed, 0};
  for (const addrinfo* ai = found; ai != nullptr && result.fd < 0; ai = ai->ai_next) {
    const int fd = ::socket(ai->ai_family, ai->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, ai->ai_protocol);
    if (fd < 0) {
      result.systemError = errno;
      continue;
    }
    const int error = ::connect(fd, ai->ai_addr, ai->ai_addrlen) == 0 ? 0
                      : errno == EINPROGRESS                          ? awaitConnect(fd, deadline)
                                                                      : errno;
    if (error == 0) {
      result = {fd, Error::kNone, 0};
    } else {
      ::close(fd);
      // One refusal among other failures is the most telling: something answered there.
      if (result.error != Error::kRefused) {
        result.error = error == ECONNREFUSED ? Error::kRefused
                       : error == ETIMEDOUT  ? Error::kTimedOut
                                             : Error::kFailed;
        result.systemError = error;
      }
    }
  }
  ::freeaddrinfo(found);
  return result;
}

}  // namespace kvx::common
