#include "tools/Target.h"

#include <algorithm>
#include <chrono>
#include <iterator>
#include <vector>

#include <boost/make_shared.hpp>
#include <boost/pointer_cast.hpp>

#include "agent/TaProcessKVX.h"
#include "client/TargetConfig_TaProcessClient.h"
#include "manager/TaProcessManager.h"
#include "tools/Failure.h"
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
      m_diagnosis(endpoint),
      m_config(configFor(endpoint)),
      m_client(boost::make_shared<vorn::TargetConfig_TaProcessClient>()) {
  const std::string attempted = "cannot open a session with the agent at " + endpoint.text();
  vorn::TaProcessManager& manager = vorn::TaProcessManager::getInstance();
  const int32_t answer = manager.registerClient(m_client, m_config);
  if (answer != vorn::TA_METHOD_SERVED) {
    throw Failure(attempted,
                  "the plug-in does not serve the configuration (answer " + std::to_string(answer) + ")");
  }
  m_process = boost::dynamic_pointer_cast<vorn::TaProcessKVX>(manager.getTaProcess(kProcessName, m_config));
  if (!m_process) throw Failure(attempted, "the plug-in gave no KVX process");
  const std::vector<std::string> spaces = vorn::TaProcessKVX::memorySpaces();
  m_memorySpace = spaces.empty() ? kFallbackMemorySpace : spaces.front();
  // Open the session now, so an agent that is not there is reported as such rather than as the
  // failure of whatever access comes first.
  m_process->activateConnection();
  if (!agentAnswers()) throw Failure(attempted, m_diagnosis.noSession());
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

template <typename Access, typename Refusal>
void Target::guarded(const std::string& attempted, Access access, Refusal refusal) {
  const auto start = std::chrono::steady_clock::now();
  try {
    access();
  } catch (const vorn::Exception& failure) {
    const auto elapsed = std::chrono::steady_clock::now() - start;
    const std::string detail = "the plug-in: " + failure.getMessage() + " (" + failure.getFile() + ":" +
                               std::to_string(failure.getLine()) + ")";
    // A refusal leaves the session open; a lost connection or a reply that never came closes it.
    if (!agentAnswers()) {
      const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(elapsed).count();
      throw Failure(
          attempted,
          "the agent at " + m_endpoint.text() + " is gone: " + m_diagnosis.lostSession(unsigned(ms)), detail);
    }
    throw Failure(attempted, refusal(), detail);
  }
}

void Target::read(uint64_t address, uint8_t* bytes, unsigned size) {
  const vorn::ExtAddress where{m_memorySpace, address};
  guarded(
      "cannot read " + byteCount(size) + " at " + hexAddress(address),
      [&] { m_process->read_mem(where, 1, size, bytes); },
      [&] { return m_diagnosis.memoryRefused(false, address, size); });
}

void Target::write(uint64_t address, const uint8_t* bytes, unsigned size) {
  const vorn::ExtAddress where{m_memorySpace, address};
  guarded(
      "cannot write " + byteCount(size) + " at " + hexAddress(address),
      [&] { m_process->write_mem(where, 1, size, bytes); },
      [&] { return m_diagnosis.memoryRefused(true, address, size); });
}

Target::Register Target::readRegister(const std::string& name) {
  // The agent library stores exactly the register's width: the bytes that both reads set alike,
  // one over zeros and one over ones, are the register's.
  uint8_t zeros[kMaxAccessBytes] = {};
  uint8_t ones[kMaxAccessBytes];
  std::fill(std::begin(ones), std::end(ones), 0xff);
  for (uint8_t* buffer : {zeros, ones}) {
    guarded(
        "cannot read register " + name, [&] { m_process->read_register(name, 1, kMaxAccessBytes, buffer); },
        [&] { return m_diagnosis.registerRefused(false, name, 0); });
  }
  unsigned width = 0;
  while (width < kMaxAccessBytes && zeros[width] == ones[width]) ++width;
  return {fromTargetBytes(zeros, width), width};
}

void Target::writeRegister(const std::string& name, uint64_t value) {
  uint8_t bytes[kMaxAccessBytes];
  toTargetBytes(value, bytes, kMaxAccessBytes);
  guarded(
      "cannot write " + hexAddress(value) + " to register " + name,
      [&] { m_process->write_register(name, 1, kMaxAccessBytes, bytes); },
      [&] { return m_diagnosis.registerRefused(true, name, value); });
}

uint64_t Target::reserve(uint64_t size) {
  m_process->activateConnection();
  vorn::ExtAddress block;
  if (!m_process->reserve_mem(size, block)) {
    // The agent refuses a reservation of at least one byte only for want of room.
    reservationFailed("cannot reserve " + byteCount(size),
                      "no space for a block that size in the reservation region");
  }
  return block.address;
}

void Target::unreserve(uint64_t address) {
  m_process->activateConnection();
  vorn::ExtAddress block;
  block.address = address;
  if (!m_process->unreserve_mem(block)) {
    reservationFailed("cannot release the block at " + hexAddress(address),
                      hexAddress(address) + " is not the start of a reserved block");
  }
}

void Target::unreserveAll() {
  m_process->activateConnection();
  if (!m_process->unreserve_all())
    reservationFailed("cannot release the reserved blocks", "the agent refused");
}

void Target::reservationFailed(const std::string& attempted, const std::string& refusal) {
  // Reservations act on whichever session the agent library has open and never open one
  // themselves, which is why each makes this process's session the open one first.
  if (!agentAnswers()) {
    throw Failure(attempted, "the agent at " + m_endpoint.text() + " is gone: " + m_diagnosis.lostSession(0));
  }
  throw Failure(attempted, refusal);
}

bool Target::agentAnswers() { return m_process->getLocalConnection().isActive(); }

}  // namespace kvx::cli
