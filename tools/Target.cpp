#include "tools/Target.h"

#include <stdexcept>

#include <boost/make_shared.hpp>
#include <boost/pointer_cast.hpp>

#include "agent/TaProcessKVX.h"
#include "client/TargetConfig_TaProcessClient.h"
#include "manager/TaProcessManager.h"
#include "tools/Numbers.h"
#include "vorn/ConfigBlock.h"
#include "vorn/Exception.h"
#include "vorn/ExtAddress.h"
#include "vorn/TaProcess.h"

namespace kvx::cli {
namespace {

const char* const kProcessName = "kvx-ta";
const char* const kAccessMethod = "KVX";
/// What accesses name when the process announces no memory space; the process normally does.
const char* const kFallbackMemorySpace = "logger";

}  // namespace

Target::Target(const common::Endpoint& endpoint)
    : m_endpoint(endpoint),
      m_config(configFor(endpoint)),
      m_client(boost::make_shared<vorn::TargetConfig_TaProcessClient>()) {
  vorn::TaProcessManager& manager = vorn::TaProcessManager::getInstance();
  const int32_t answer = manager.registerClient(m_client, m_config);
  if (answer != vorn::TA_METHOD_SERVED) {
    throw std::runtime_error("the plug-in does not serve the configuration for " + endpoint.text() +
                             " (answer " + std::to_string(answer) + ")");
  }
  m_process = boost::dynamic_pointer_cast<vorn::TaProcessKVX>(manager.getTaProcess(kProcessName, m_config));
  if (!m_process) {
    throw std::runtime_error("the plug-in gave no KVX process for " + endpoint.text());
  }
  const std::vector<std::string> spaces = vorn::TaProcessKVX::memorySpaces();
  m_memorySpace = spaces.empty() ? kFallbackMemorySpace : spaces.front();
  // Open the session now, so an agent that is not there is reported as such rather than as the
  // failure of whatever access comes first.
  m_process->activateConnection();
  if (!m_process->getLocalConnection().isActive()) {
    throw std::runtime_error("cannot open a session with the agent at " + endpoint.text() +
                             " (nothing answers there, or the agent refused the session)");
  }
}

Target::~Target() { vorn::TaProcessManager::getInstance().unregisterClient(m_client->getUUID(), m_config); }

boost::shared_ptr<vorn::ConfigBlock> Target::configFor(const common::Endpoint& endpoint) {
  auto config = boost::make_shared<vorn::ConfigBlock>();
  config->setAttribute("TaType", boost::make_shared<vorn::StringAttribute>(kAccessMethod));
  config->setAttribute("ServerAddress", boost::make_shared<vorn::StringAttribute>(endpoint.host));
  config->setAttribute("ServerPort",
                       boost::make_shared<vorn::UInt32Attribute>(static_cast<uint32_t>(endpoint.port)));
  return config;
}

template <typename Access>
bool Target::guarded(Access access) {
  try {
    return access();
  } catch (const vorn::Exception& failure) {
    // A refusal leaves the session open; a lost connection or a reply that never came closes it.
    if (agentAnswers()) {
      throw;
    }
    throw vorn::Exception(
        failure.getFile().c_str(), failure.getLine(),
        failure.getMessage() + ": the agent at " + m_endpoint.text() + " no longer answers");
  }
}

void Target::read(uint64_t address, uint8_t* bytes, unsigned size) {
  const vorn::ExtAddress where{m_memorySpace, address};
  if (!guarded([&] { return m_process->read_mem(where, 1, size, bytes); })) {
    throw std::runtime_error("the plug-in did not read " + hexAddress(address));
  }
}

void Target::write(uint64_t address, const uint8_t* bytes, unsigned size) {
  const vorn::ExtAddress where{m_memorySpace, address};
  if (!guarded([&] { return m_process->write_mem(where, 1, size, bytes); })) {
    throw std::runtime_error("the plug-in did not write " + hexAddress(address));
  }
}

uint64_t Target::readRegister(const std::string& name) {
  uint8_t bytes[kMaxAccessBytes] = {};
  if (!guarded([&] { return m_process->read_register(name, 1, kMaxAccessBytes, bytes); })) {
    throw std::runtime_error("the plug-in did not read register " + name);
  }
  return fromTargetBytes(bytes, kMaxAccessBytes);
}

void Target::writeRegister(const std::string& name, uint64_t value) {
  uint8_t bytes[kMaxAccessBytes];
  toTargetBytes(value, bytes, kMaxAccessBytes);
  if (!guarded([&] { return m_process->write_register(name, 1, kMaxAccessBytes, bytes); })) {
    throw std::runtime_error("the plug-in did not write register " + name);
  }
}

uint64_t Target::reserve(uint64_t size) {
  ensureSession();
  vorn::ExtAddress block;
  if (!m_process->reserve_mem(size, block)) {
    throw reservationFailure("reserve " + std::to_string(size) + " bytes");
  }
  return block.address;
}

void Target::unreserve(uint64_t address) {
  ensureSession();
  vorn::ExtAddress block;
  block.address = address;
  if (!m_process->unreserve_mem(block)) {
    throw reservationFailure("release the block at " + hexAddress(address));
  }
}

void Target::unreserveAll() {
  ensureSession();
  if (!m_process->unreserve_all()) {
    throw reservationFailure("release the reserved blocks");
  }
}

void Target::ensureSession() { m_process->activateConnection(); }

bool Target::agentAnswers() { return m_process->getLocalConnection().isActive(); }

std::runtime_error Target::reservationFailure(const std::string& what) {
  return std::runtime_error("cannot " + what + ": the agent at " + m_endpoint.text() +
                            (agentAnswers() ? " refused" : " no longer answers"));
}

}  // namespace kvx::cli
