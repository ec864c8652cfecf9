#include "python/Target.h"

#include <algorithm>
#include <cstring>
#include <mutex>
#include <shared_mutex>
#include <vector>

#include <boost/make_shared.hpp>
#include <boost/pointer_cast.hpp>

#include "agent/TaProcessKVX.h"
#include "common/Accesses.h"
#include "common/Endpoint.h"
#include "manager/TaProcessManager.h"
#include "python/TargetError.h"
#include "vorn/ConfigBlock.h"
#include "vorn/Exception.h"
#include "vorn/ExtAddress.h"

namespace kvx::python {
namespace {

const char* const kProcessName = "ta_kvx";
const char* const kAccessMethod = "KVX";
/// What accesses name should the process announce no memory space; it normally announces one.
const char* const kFallbackMemorySpace = "logger";
using common::kMaxAccessBytes;

/// Held shared by every access and alone by every reservation operation, of all targets: see
/// Target.h. Taken before the plug-in's locks, never while waiting for the interpreter's. Never
/// destroyed, as daemon threads may still hold it while the process exits.
std::shared_mutex& reservationLock() {
  static auto* lock = new std::shared_mutex;
  return *lock;
}

/// Runs `access`, a call of the process, turning the plug-in's exception into a TargetError that
/// names `address` or `registerName`.
template <typename Access>
void guarded(Access access, std::optional<uint64_t> address, std::optional<std::string> registerName) {
  try {
    access();
  } catch (const vorn::Exception& failure) {
    throw TargetError(failure.getMessage(), address, std::move(registerName));
  }
}

/// Calls `access(address, offset, size)` for each access of the `length` bytes from `address`, in
/// address order, `offset` bytes into the range; a failure names the access's address.
template <typename Access>
void eachAccess(uint64_t address, uint64_t length, Access access) {
  for (uint64_t done = 0; done < length;) {
    const uint64_t at = address + done;
    const unsigned size = common::accessSizeAt(at, length - done);
    guarded([&] { access(at, done, size); }, at, std::nullopt);
    done += size;
  }
}

}  // namespace

Target::Target(const std::string& host, uint16_t port) : m_endpoint(common::Endpoint{host, port}.text()) {
  auto config = boost::make_shared<vorn::ConfigBlock>();
  config->setAttribute("TaType", boost::make_shared<vorn::StringAttribute>(kAccessMethod));
  config->setAttribute("ServerAddress", boost::make_shared<vorn::StringAttribute>(host));
  config->setAttribute("ServerPort", boost::make_shared<vorn::UInt32Attribute>(port));
  m_process = boost::dynamic_pointer_cast<vorn::TaProcessKVX>(
      vorn::TaProcessManager::getInstance().getTaProcess(kProcessName, config));
  if (!m_process) throw TargetError("the plug-in gave no KVX process for " + m_endpoint);
  const std::vector<std::string> spaces = vorn::TaProcessKVX::memorySpaces();
  m_memorySpace = spaces.empty() ? kFallbackMemorySpace : spaces.front();
}

Target::~Target() = default;

void Target::read(uint64_t address, uint8_t* bytes, uint64_t length) {
  std::shared_lock<std::shared_mutex> shared(reservationLock());
  eachAccess(address, length, [&](uint64_t at, uint64_t offset, unsigned size) {
    m_process->read_mem(vorn::ExtAddress{m_memorySpace, at}, 1, size, bytes + offset);
  });
}

void Target::write(uint64_t address, const uint8_t* bytes, uint64_t length) {
  std::shared_lock<std::shared_mutex> shared(reservationLock());
  eachAccess(address, length, [&](uint64_t at, uint64_t offset, unsigned size) {
    m_process->write_mem(vorn::ExtAddress{m_memorySpace, at}, 1, size, bytes + offset);
  });
}

uint64_t Target::readUnsigned(uint64_t address, unsigned size) {
  // The plug-in stores the first byte lowest, which on this little-endian host is the value.
  static_assert(sizeof(uint64_t) == kMaxAccessBytes, "a value fills one access at most");
  uint64_t value = 0;
  std::shared_lock<std::shared_mutex> shared(reservationLock());
  guarded(
      [&] {
        m_process->read_mem(vorn::ExtAddress{m_memorySpace, address}, 1, size, &value);
      },
      address, std::nullopt);
  return value;
}

void Target::writeUnsigned(uint64_t address, uint64_t value, unsigned size) {
  std::shared_lock<std::shared_mutex> shared(reservationLock());
  guarded(
      [&] {
        m_process->write_mem(vorn::ExtAddress{m_memorySpace, address}, 1, size, &value);
      },
      address, std::nullopt);
}

size_t Target::readOnce(uint64_t address, size_t count, unsigned unitSize, uint8_t* bytes) {
  std::shared_lock<std::shared_mutex> shared(reservationLock());
  guarded(
      [&] {
        m_process->read_mem(vorn::ExtAddress{m_memorySpace, address}, count, unitSize, bytes);
      },
      address, std::nullopt);
  // The plug-in's byte count wraps modulo 2^64, as this product does.
  return size_t(std::min<uint64_t>(uint64_t(count) * unitSize, kMaxAccessBytes));
}

uint64_t Target::readRegister(const std::string& name) {
  uint64_t value = 0;
  std::shared_lock<std::shared_mutex> shared(reservationLock());
  guarded([&] { m_process->read_register(name, 1, sizeof value, &value); }, std::nullopt, name);
  return value;
}

void Target::writeRegister(const std::string& name, uint64_t value) {
  std::shared_lock<std::shared_mutex> shared(reservationLock());
  guarded([&] { m_process->write_register(name, 1, sizeof value, &value); }, std::nullopt, name);
}

uint64_t Target::reserve(uint64_t size) {
  std::unique_lock<std::shared_mutex> alone(reservationLock());
  m_process->activateConnection();
  vorn::ExtAddress block;
  if (m_process->reserve_mem(size, block)) return block.address;
  const std::string attempted = "Cannot reserve " + std::to_string(size) + " bytes";
  throwIfAgentGone(attempted.c_str());
  throw TargetError(attempted + ": no room for a block that size");
}

bool Target::unreserve(uint64_t address) {
  std::unique_lock<std::shared_mutex> alone(reservationLock());
  m_process->activateConnection();
  vorn::ExtAddress block;
  block.address = address;
  if (m_process->unreserve_mem(block)) return true;
  throwIfAgentGone("Cannot release a reserved block");
  return false;
}

bool Target::unreserveAll() {
  std::unique_lock<std::shared_mutex> alone(reservationLock());
  m_process->activateConnection();
  if (m_process->unreserve_all()) return true;
  throwIfAgentGone("Cannot release the reserved blocks");
  return false;
}

void Target::throwIfAgentGone(const char* attempted) {
  // No access can switch sessions meanwhile, so the open session is this endpoint's; its flag
  // says whether it was opened, and isActive() whether it still is.
  if (!vorn::TaProcessKVX::sharedConnection().isActive()) {
    throw TargetError(std::string(attempted) + ": no session with the agent at " + m_endpoint);
  }
}

}  // namespace kvx::python
