#include "bringup/Target.h"

#include <mutex>
#include <shared_mutex>
#include <vector>

#include <boost/make_shared.hpp>
#include <boost/pointer_cast.hpp>
#include <boost/thread/exceptions.hpp>

#include "agent/TaProcessKVX.h"
#include "bringup/Configuration.h"
#include "bringup/Numbers.h"
#include "bringup/Ranges.h"
#include "bringup/Registers.h"
#include "client/TargetConfig_TaProcessClient.h"
#include "manager/TaProcessManager.h"
#include "vorn/Exception.h"
#include "vorn/ExtAddress.h"

namespace kvx::bringup {
namespace {

/// What accesses name should the process announce no memory space; it normally announces one.
const char* const kFallbackMemorySpace = "logger";

/// Held shared by every access and alone by every reservation operation, of all targets: see
/// Target.h. Taken before the plug-in's locks. Never destroyed, as a thread may still hold it
/// while the process exits.
std::shared_mutex& reservationLock() {
  static auto* lock = new std::shared_mutex;
  return *lock;
}

}  // namespace

Target::Target(const common::Endpoint& endpoint, const std::string& processName)
    : m_endpoint(endpoint),
      m_config(servedConfiguration(endpoint)),
      m_client(boost::make_shared<vorn::TargetConfig_TaProcessClient>()) {
  const std::string attempted = "cannot open a session with the agent at " + endpoint.text();
  vorn::TaProcessManager& manager = vorn::TaProcessManager::getInstance();
  const int32_t answer = manager.registerClient(m_client, m_config);
  if (answer != vorn::TA_METHOD_SERVED) {
    throw Error(Error::Kind::kConnection, attempted,
                "the plug-in does not serve the configuration (answer " + std::to_string(answer) + ")");
  }
  m_process = boost::dynamic_pointer_cast<vorn::TaProcessKVX>(manager.getTaProcess(processName, m_config));
  if (!m_process) throw Error(Error::Kind::kConnection, attempted, "the plug-in gave no KVX process");
  const std::vector<std::string> spaces = vorn::TaProcessKVX::memorySpaces();
  m_memorySpace = spaces.empty() ? kFallbackMemorySpace : spaces.front();
}

void Target::open() {
  // A switch ends with start_session; without a switch the session is this endpoint's already.
  const uint64_t mark = lastAgentCall().sequence;
  {
    std::shared_lock<std::shared_mutex> shared(reservationLock());
    m_process->activateConnection();
  }
  const AgentCall& call = lastAgentCall();
  if (call.sequence != mark && call.function == AgentFunction::kStartSession && call.status != 0) {
    throw agentFailure("cannot open a session with the agent at " + m_endpoint.text(), context(), "");
  }
}

Target::~Target() { vorn::TaProcessManager::getInstance().unregisterClient(m_client->getUUID(), m_config); }

CallContext Target::context() const {
  CallContext context;
  context.endpoint = m_endpoint;
  return context;
}

Error Target::agentFailure(const std::string& attempted, const CallContext& context,
                           const std::string& detail) const {
  const AgentCall& call = lastAgentCall();
  const FailureReason reason = failureReason(call, context, agentLibrary());
  Error::AgentCall failed{functionName(call.function), call.status, std::nullopt, std::nullopt};
  if (call.function == AgentFunction::kIoRead || call.function == AgentFunction::kIoWrite) {
    failed.address = call.arguments[0];
  }
  if (call.function == AgentFunction::kRegRead || call.function == AgentFunction::kRegWrite) {
    failed.registerName = context.registerName;
  }
  return Error(reason.kind, attempted, reason.text, detail, failed);
}

template <typename Access>
void Target::guarded(const std::string& attempted, const CallContext& context, Access access) {
  const uint64_t mark = lastAgentCall().sequence;
  std::shared_lock<std::shared_mutex> shared(reservationLock());
  try {
    access();
  } catch (const vorn::Exception& failure) {
    const std::string detail = "the plug-in: " + failure.getMessage() + " (" + failure.getFile() + ":" +
                               std::to_string(failure.getLine()) + ")";
    if (lastAgentCall().sequence == mark)
      throw Error(Error::Kind::kTarget, attempted, failure.getMessage(), detail);
    throw agentFailure(attempted, context, detail);
  } catch (const boost::lock_error& failure) {
    // The plug-in refuses an access from a thread that holds its session lock already: a log
    // appender that calls back into the plug-in while an access logs.
    throw Error(Error::Kind::kTarget, attempted,
                "this thread is inside an access already (a log appender may not call the plug-in)",
                failure.what());
  }
}

void Target::read(uint64_t address, uint8_t* bytes, unsigned size) {
  const vorn::ExtAddress where{m_memorySpace, address};
  guarded("cannot read " + byteCount(size) + " at " + hexAddress(address), context(),
          [&] { m_process->read_mem(where, 1, size, bytes); });
}

void Target::write(uint64_t address, const uint8_t* bytes, unsigned size) {
  const vorn::ExtAddress where{m_memorySpace, address};
  guarded("cannot write " + byteCount(size) + " at " + hexAddress(address), context(),
          [&] { m_process->write_mem(where, 1, size, bytes); });
}

std::pair<uint64_t, uint64_t> Target::modify(uint64_t address, unsigned size, uint64_t set, uint64_t clear) {
  uint8_t bytes[kMaxAccessBytes];
  read(address, bytes, size);
  const uint64_t old = fromTargetBytes(bytes, size);
  const uint64_t changed = (old & ~clear) | set;
  toTargetBytes(changed, bytes, size);
  write(address, bytes, size);
  return {old, changed};
}

size_t Target::readOnce(uint64_t address, size_t count, unsigned unitSize, uint8_t* bytes) {
  const vorn::ExtAddress where{m_memorySpace, address};
  // The plug-in's byte count wraps modulo 2^64, as this product does, and is cut to 8.
  const uint64_t asked = uint64_t{count} * unitSize;
  const size_t moved = static_cast<size_t>(asked < kMaxAccessBytes ? asked : kMaxAccessBytes);
  guarded("cannot read " + byteCount(moved) + " at " + hexAddress(address), context(),
          [&] { m_process->read_mem(where, count, unitSize, bytes); });
  return moved;
}

Target::Register Target::readRegister(const std::string& name) {
  // The agent library stores the register's width at most, into these zeroed bytes.
  uint8_t bytes[kMaxAccessBytes] = {};
  CallContext context = this->context();
  context.registerName = name;
  guarded("cannot read register " + name, context,
          [&] { m_process->read_register(name, 1, kMaxAccessBytes, bytes); });
  return {fromTargetBytes(bytes, kMaxAccessBytes), registerBits(name)};
}

void Target::writeRegister(const std::string& name, uint64_t value) {
  uint8_t bytes[kMaxAccessBytes];
  toTargetBytes(value, bytes, kMaxAccessBytes);
  CallContext context = this->context();
  context.registerName = name;
  context.value = value;
  guarded("cannot write " + hexAddress(value) + " to register " + name, context,
          [&] { m_process->write_register(name, 1, kMaxAccessBytes, bytes); });
}

uint64_t Target::reserve(uint64_t size) {
  std::unique_lock<std::shared_mutex> alone(reservationLock());
  // Reservations act on whichever session is open and never open one, so this process's session
  // is made the open one first.
  m_process->activateConnection();
  vorn::ExtAddress block;
  if (!m_process->reserve_mem(size, block))
    throw agentFailure("cannot reserve " + byteCount(size), context(), "");
  return block.address;
}

void Target::unreserve(uint64_t address) {
  std::unique_lock<std::shared_mutex> alone(reservationLock());
  m_process->activateConnection();
  vorn::ExtAddress block;
  block.address = address;
  if (m_process->unreserve_mem(block)) return;
  CallContext context = this->context();
  context.address = address;
  throw agentFailure("cannot release the block at " + hexAddress(address), context, "");
}

bool Target::tryUnreserve(uint64_t address) {
  try {
    unreserve(address);
    return true;
  } catch (const Error& failure) {
    if (failure.call() && meansNotReserved(failure.call()->status, agentLibrary())) return false;
    throw;
  }
}

void Target::unreserveAll() {
  std::unique_lock<std::shared_mutex> alone(reservationLock());
  m_process->activateConnection();
  if (!m_process->unreserve_all()) throw agentFailure("cannot release the reserved blocks", context(), "");
}

void Target::reconnect() {
  // A process for no endpoint: its switch closes the shared session and opens none (the agent
  // library refuses port -1), so the next access through any other process switches back and
  // opens a fresh session with its agent.
  vorn::TaProcessKVX nowhere("", -1);
  std::shared_lock<std::shared_mutex> shared(reservationLock());
  nowhere.activateConnection();
}

}  // namespace kvx::bringup
