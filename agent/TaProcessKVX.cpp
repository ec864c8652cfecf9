#include "agent/TaProcessKVX.h"

#include <cassert>
#include <cstring>
#include <locale>
#include <new>
#include <sstream>
#include <utility>

#include <log4cxx/logger.h>
#include <boost/thread/lock_guard.hpp>

#include "agent/TargetAgent.h"
#include "vorn/Exception.h"

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

/// Lock order: sessionLock(), then a process's m_mutex. The EnumValueList mutex is never held
/// with either. Guards m_sharedConnection, the agent session from a switch to the end of the
/// access that follows it, and the replacement of ExtAddress::memorySpaceIds.
///
/// Never destroyed: a host thread may still be inside an access while the process exits, and a
/// mutex destroyed under it would fail. It lives in the library's own storage, so an unload takes
/// it along, and a reload starts with a new one.
boost::mutex& sessionLock() {
  alignas(boost::mutex) static unsigned char storage[sizeof(boost::mutex)];
  static boost::mutex* const lock = new (storage) boost::mutex;
  return *lock;
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
  boost::lock_guard<boost::mutex> session(sessionLock());
  ExtAddress::memorySpaceIds = std::vector<std::string>{kProcessMemorySpace};
}

TaProcessKVX::~TaProcessKVX() = default;

void TaProcessKVX::activateConnection() {
  boost::lock_guard<boost::mutex> session(sessionLock());
  activateConnectionLocked();
}

void TaProcessKVX::activateConnectionLocked() {
  boost::lock_guard<boost::mutex> guard(m_mutex);
  if (m_localConnection == m_sharedConnection) {
    return;
  }
  // The flags take no part: a failed or lost session for this endpoint is not reopened until a
  // process with another endpoint has switched away from it.
  m_sharedConnection.destroy();
  m_localConnection.destroy();
  m_localConnection.init();
  m_sharedConnection = m_localConnection;
}

bool TaProcessKVX::write_mem(const ExtAddress& extAddress, size_t count, unsigned int unitSize,
                             const void* data) {
  boost::lock_guard<boost::mutex> session(sessionLock());
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
  boost::lock_guard<boost::mutex> session(sessionLock());
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
  boost::lock_guard<boost::mutex> session(sessionLock());
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
  boost::lock_guard<boost::mutex> session(sessionLock());
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
  boost::lock_guard<boost::mutex> session(sessionLock());
  return m_sharedConnection;
}

std::vector<std::string> TaProcessKVX::memorySpaces() {
  boost::lock_guard<boost::mutex> session(sessionLock());
  return ExtAddress::memorySpaceIds;
}

}  // namespace vorn
