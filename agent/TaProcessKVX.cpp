#include "agent/TaProcessKVX.h"

#include <pthread.h>
#include <sys/mman.h>

#include <atomic>
#include <cassert>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <locale>
#include <new>
#include <sstream>
#include <thread>
#include <utility>

#include <log4cxx/logger.h>
#include <boost/thread/exceptions.hpp>
#include <boost/thread/lock_guard.hpp>
#include <boost/throw_exception.hpp>

#include "agent/TargetAgent.h"
#include "vorn/Exception.h"

// Every LOG4CXX_WARN here records its location through lastingLocation() below.
#undef LOG4CXX_LOCATION
#define LOG4CXX_LOCATION lastingLocation(__FILE__, __PRETTY_FUNCTION__, __LINE__)

namespace vorn {
namespace {

// Obtained at load, before m_sharedConnection is constructed.
log4cxx::LoggerPtr logger = log4cxx::Logger::getLogger("tesk.ta.kvx");

/// The most bytes the agent moves in one call.
constexpr uint64_t kMaxAccessBytes = 8;
static_assert(kMaxAccessBytes == sizeof(uint64_t), "an access is packed into one 64-bit word");

const char* const kProcessMemorySpace = "logger";
const char* const kReservedMemorySpace = "physical";
constexpr int32_t kProcessType = 1;

/// The lock shared by all processes. Lock order: this lock, then a process's m_mutex. The
/// EnumValueList mutex is never held with either. Guards m_sharedConnection, the agent session
/// from a switch to the end of the access that follows it, and the replacement of
/// ExtAddress::memorySpaceIds.
///
/// A thread that holds it and asks for it again, which only a log4cxx appender called from inside
/// an access can do, gets boost::lock_error (resource deadlock would occur) at once instead of
/// waiting for itself forever.
class SessionLock {
 public:
  void lock() {
    if (heldByThisThread()) {
      boost::throw_exception(boost::lock_error(
          EDEADLK, "the plug-in was called from inside one of its own accesses, such as by a log appender"));
    }
    m_mutex.lock();
    m_owner.store(std::this_thread::get_id(), std::memory_order_relaxed);
  }
  bool try_lock() {
    if (heldByThisThread() || !m_mutex.try_lock()) return false;
    m_owner.store(std::this_thread::get_id(), std::memory_order_relaxed);
    return true;
  }
  void unlock() {
    m_owner.store(std::thread::id(), std::memory_order_relaxed);
    m_mutex.unlock();
  }
  /// Only the owner ever finds its own id here, so no ordering is needed to read it.
  bool heldByThisThread() const {
    return m_owner.load(std::memory_order_relaxed) == std::this_thread::get_id();
  }
  /// In a forked child, for a lock that a thread of the parent held: it is free again. Only the
  /// child's one thread runs, so nothing else looks at it meanwhile.
  void freeInChild() {
    ::pthread_mutex_init(m_mutex.native_handle(), nullptr);
    m_owner.store(std::thread::id(), std::memory_order_relaxed);
  }

 private:
  boost::mutex m_mutex;
  std::atomic<std::thread::id> m_owner{};
};

/// Never destroyed: a host thread may still be inside an access while the process exits, and a
/// mutex destroyed under it would fail. It lives in the library's own storage, so an unload takes
/// it along, and a reload starts with a new one.
SessionLock& sessionLock() {
  alignas(SessionLock) static unsigned char storage[sizeof(SessionLock)];
  static SessionLock* const lock = new (storage) SessionLock;
  return *lock;
}

using SessionGuard = boost::lock_guard<SessionLock>;

// ---- Fork ----
//
// A child forked while another thread is inside an access inherits the session lock held by a
// thread that does not exist in the child, and perhaps the state it guards half written. The
// handler below gives every child a free lock and no session: the child's first access switches,
// so the agent library opens a connection of the child's own, and nothing the child does reaches
// the parent's. No handler waits: a fork is never held up by an access in flight.

/// What the holder of the session lock is writing, so that a child can rebuild it.
enum class Writing : uint8_t { kNothing, kSharedConnection, kMemorySpaces };
std::atomic<Writing> g_writing{Writing::kNothing};
/// The process mutex held inside a switch, if any; always under the session lock.
std::atomic<boost::mutex*> g_heldProcessMutex{nullptr};

/// Holds a process's m_mutex. The mutex is named in g_heldProcessMutex from before it is locked
/// until after it is unlocked, so a child forked in between always finds it.
class ProcessMutexGuard {
 public:
  explicit ProcessMutexGuard(boost::mutex& mutex) : m_named(&mutex), m_guard(mutex) {}

 private:
  struct Named {
    explicit Named(boost::mutex* mutex) { g_heldProcessMutex.store(mutex); }
    ~Named() { g_heldProcessMutex.store(nullptr, std::memory_order_relaxed); }
    Named(const Named&) = delete;
    Named& operator=(const Named&) = delete;
  };
  Named m_named;
  boost::lock_guard<boost::mutex> m_guard;
};

/// Names what the session lock's holder writes, from before the first byte until after the last.
class WritingGuard {
 public:
  explicit WritingGuard(Writing what) { g_writing.store(what); }
  ~WritingGuard() { g_writing.store(Writing::kNothing, std::memory_order_relaxed); }
  WritingGuard(const WritingGuard&) = delete;
  WritingGuard& operator=(const WritingGuard&) = delete;
};

void startChildWithoutSession() {
  SessionLock& lock = sessionLock();
  // Forked from inside an access (by an appender): that access goes on in the child, which owns
  // the lock and everything it guards.
  if (lock.heldByThisThread()) return;
  Writing halfWritten = Writing::kNothing;
  if (lock.try_lock()) {
    lock.unlock();
  } else {
    // The holder is gone, and what it was writing may be half written: that is built anew over
    // the old storage, which is given up rather than freed.
    lock.freeInChild();
    if (boost::mutex* held = g_heldProcessMutex.exchange(nullptr)) {
      ::pthread_mutex_init(held->native_handle(), nullptr);
    }
    halfWritten = g_writing.exchange(Writing::kNothing);
  }
  if (halfWritten == Writing::kMemorySpaces) {
    new (&ExtAddress::memorySpaceIds) std::vector<std::string>{kProcessMemorySpace};
  }
  if (halfWritten == Writing::kSharedConnection) {
    new (&TaProcessKVX::m_sharedConnection) KVXConnection;
  } else {
    TaProcessKVX::m_sharedConnection = KVXConnection();
  }
}

/// Registered as the library is loaded; the C library forgets the handler when it is unloaded.
__attribute__((constructor)) void registerForkHandler() {
  ::pthread_atfork(nullptr, nullptr, startChildWithoutSession);
}

/// The location of a warning, as LOG4CXX_WARN records it, with the file and function names
/// copied to memory that the plug-in's unload leaves in place. A record keeps its location as
/// pointers, and an appender may keep records beyond the unload (an AsyncAppender's queue, a
/// buffer) and format them then; names in the library's own storage would be gone by then.
///
/// The copies are made once per logging statement, into a page mapped for good: a few hundred
/// bytes per load of the library that warned. Called only under the session lock, which every
/// warning is logged under. Without the page, the names are the library's own.
log4cxx::spi::LocationInfo lastingLocation(const char* file, const char* function, int line) {
  struct Site {
    const char* function;  ///< the statement's own __PRETTY_FUNCTION__, which identifies it with the line
    int line;
    const char* lastingFile;
    const char* lastingFunction;
  };
  static Site sites[8];
  static size_t siteCount = 0;
  static char* page = nullptr;
  static size_t pageUsed = 0;
  constexpr size_t kPageSize = 4096;

  for (size_t i = 0; i < siteCount; ++i) {
    const Site& site = sites[i];
    if (site.function == function && site.line == line) {
      return log4cxx::spi::LocationInfo(site.lastingFile,
                                        log4cxx::spi::LocationInfo::calcShortFileName(site.lastingFile),
                                        site.lastingFunction, line);
    }
  }
  if (page == nullptr) {
    void* mapped = ::mmap(nullptr, kPageSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    page = mapped == MAP_FAILED ? nullptr : static_cast<char*>(mapped);
  }
  const size_t fileSize = std::strlen(file) + 1;
  const size_t functionSize = std::strlen(function) + 1;
  if (page == nullptr || siteCount == std::size(sites) || pageUsed + fileSize + functionSize > kPageSize) {
    return log4cxx::spi::LocationInfo(file, log4cxx::spi::LocationInfo::calcShortFileName(file), function,
                                      line);
  }
  char* lastingFile = static_cast<char*>(std::memcpy(page + pageUsed, file, fileSize));
  char* lastingFunction = static_cast<char*>(std::memcpy(page + pageUsed + fileSize, function, functionSize));
  pageUsed += fileSize + functionSize;
  sites[siteCount++] = Site{function, line, lastingFile, lastingFunction};
  return lastingLocation(file, function, line);
}

/// `path` without its directories; exceptions carry the bare file name.
constexpr const char* baseName(const char* path) {
  const char* base = path;
  for (const char* p = path; *p != '\0'; ++p) {
    if (*p == '/') {
      base = p + 1;
    }
  }
  return base;
}

/// A stream for an exception's message. The classic locale keeps an address's digits as they
/// are whatever locale the host has made global (a user's locale may group them).
std::ostringstream messageStream() {
  std::ostringstream stream;
  stream.imbue(std::locale::classic());
  return stream;
}

/// count * unitSize as an unsigned 64-bit product that wraps.
uint64_t byteCount(size_t count, unsigned int unitSize) {
  return static_cast<uint64_t>(count) * static_cast<uint64_t>(unitSize);
}

/// The first n bytes of `data` in memory order, zero above: on this little-endian host the first
/// byte becomes the least significant.
uint64_t pack(const void* data, uint64_t n) {
  assert(n <= kMaxAccessBytes && "the caller cuts the count to one access first");
  uint64_t value = 0;
  if (n != 0) {
    std::memcpy(&value, data, n);
  }
  return value;
}

}  // namespace

KVXConnection TaProcessKVX::m_sharedConnection;

TaProcessKVX::TaProcessKVX(std::string address, int port) {
  m_localConnection.setTargetAddress(std::move(address));
  m_localConnection.setTargetPort(port);
  SessionGuard session(sessionLock());
  ExtAddress::memorySpaceIds = std::vector<std::string>{kProcessMemorySpace};
}

TaProcessKVX::~TaProcessKVX() = default;

void TaProcessKVX::activateConnection() {
  SessionGuard session(sessionLock());
  activateConnectionLocked();
}

void TaProcessKVX::activateConnectionLocked() {
  ProcessMutexGuard guard(m_mutex);
  if (m_localConnection == m_sharedConnection) {
    return;
  }
  // The flags take no part: a failed or lost session for this endpoint is not reopened until a
  // process with another endpoint has switched away from it.
  m_sharedConnection.destroy();
  m_localConnection.destroy();
  m_localConnection.init();
  WritingGuard writing(Writing::kSharedConnection);
  m_sharedConnection = m_localConnection;
}

bool TaProcessKVX::write_mem(const ExtAddress& extAddress, size_t count, unsigned int unitSize,
                             const void* data) {
  SessionGuard session(sessionLock());
  activateConnectionLocked();
  uint64_t n = byteCount(count, unitSize);
  if (n > kMaxAccessBytes) {
    LOG4CXX_WARN(logger, "Trying to write more than 64 bits into IO_MAPPED memory once.");
    n = kMaxAccessBytes;
  }
  if (io_write(extAddress.address, pack(data, n), static_cast<uint32_t>(n)) != 0) {
    std::ostringstream message = messageStream();
    message << "Cannot write address " << std::hex << extAddress.address << " with memory space "
            << extAddress.memorySpace;
    throw Exception(baseName(__FILE__), __LINE__, message.str());
  }
  return true;
}

bool TaProcessKVX::read_mem(const ExtAddress& extAddress, size_t count, unsigned int unitSize, void* buffer) {
  SessionGuard session(sessionLock());
  activateConnectionLocked();
  uint64_t n = byteCount(count, unitSize);
  if (n > kMaxAccessBytes) {
    LOG4CXX_WARN(logger, "Trying to read more than 64 bits into IO_MAPPED memory once.");
    n = kMaxAccessBytes;
  }
  uint8_t bytes[kMaxAccessBytes] = {};
  const int32_t status = io_read(extAddress.address, bytes, static_cast<uint32_t>(n));
  // The bytes are handed over whatever the status; nothing past n is touched.
  if (n != 0) {
    std::memcpy(buffer, bytes, n);
  }
  if (status != 0) {
    std::ostringstream message = messageStream();
    message << "Cannot read address " << std::hex << extAddress.address << " with memory space "
            << extAddress.memorySpace;
    throw Exception(baseName(__FILE__), __LINE__, message.str());
  }
  return true;
}

bool TaProcessKVX::read_piped_mem(const ExtAddress& /*extAddress*/, size_t /*count*/,
                                  unsigned int /*unitSize*/, void* /*buffer*/) {
  return false;
}

bool TaProcessKVX::write_register(const std::string& registerName, size_t count, unsigned int unitSize,
                                  const void* data) {
  SessionGuard session(sessionLock());
  activateConnectionLocked();
  uint64_t n = byteCount(count, unitSize);
  if (n > kMaxAccessBytes) {
    LOG4CXX_WARN(logger, "Attempt to write more than 64 bits into a register.");
    n = kMaxAccessBytes;
  }
  if (reg_write(registerName.c_str(), pack(data, n)) != 0) {
    std::ostringstream message = messageStream();
    message << "Cannot write register " << registerName;
    throw Exception(baseName(__FILE__), __LINE__, message.str());
  }
  return true;
}

bool TaProcessKVX::read_register(const std::string& registerName, size_t count, unsigned int unitSize,
                                 void* buffer) {
  SessionGuard session(sessionLock());
  activateConnectionLocked();
  // Only a warning: the buffer goes to the agent library as it is, with no byte count.
  if (byteCount(count, unitSize) > kMaxAccessBytes) {
    LOG4CXX_WARN(logger, "Attempt to read more than 64 bits from a register.");
  }
  if (reg_read(registerName.c_str(), buffer) != 0) {
    std::ostringstream message = messageStream();
    message << "Cannot read register " << registerName;
    throw Exception(baseName(__FILE__), __LINE__, message.str());
  }
  return true;
}

bool TaProcessKVX::callbacksAvailable() { return false; }

int32_t TaProcessKVX::getProcessType() { return kProcessType; }

bool TaProcessKVX::reserve_mem(size_t size, ExtAddress& extAddress) {
  extAddress.memorySpace = kReservedMemorySpace;
  return ddr_reserve(size, &extAddress.address) == 0;
}

bool TaProcessKVX::unreserve_mem(ExtAddress& extAddress) {
  extAddress.memorySpace = kReservedMemorySpace;
  return ddr_unreserve(extAddress.address) == 0;
}

bool TaProcessKVX::unreserve_all() { return ddr_unreserve_all() == 0; }

KVXConnection TaProcessKVX::getLocalConnection() const { return m_localConnection; }

void TaProcessKVX::setLocalConnection(KVXConnection connection) { m_localConnection = std::move(connection); }

KVXConnection TaProcessKVX::sharedConnection() {
  SessionGuard session(sessionLock());
  return m_sharedConnection;
}

std::vector<std::string> TaProcessKVX::memorySpaces() {
  SessionGuard session(sessionLock());
  return ExtAddress::memorySpaceIds;
}

}  // namespace vorn
