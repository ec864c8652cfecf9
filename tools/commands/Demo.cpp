#include "tools/commands/Demo.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <ostream>
#include <sstream>
#include <stdexcept>
#include <utility>
#include <vector>

#include <log4cxx/logger.h>
#include <boost/make_shared.hpp>
#include <boost/pointer_cast.hpp>

#include "agent/TaProcessKVX.h"
#include "bringup/Configuration.h"
#include "bringup/Numbers.h"
#include "bringup/Ranges.h"
#include "client/TargetConfig_TaProcessClient.h"
#include "common/LogRecorder.h"
#include "common/SimulatorProcess.h"
#include "manager/TaProcessManager.h"
#include "vorn/ConfigBlock.h"
#include "vorn/Exception.h"
#include "vorn/ExtAddress.h"
#include "vorn/TaProcess.h"

namespace kvx::cli {
namespace {

using bringup::fromTargetBytes;
using bringup::hexAddress;
using bringup::hexPadded;
using bringup::kMaxAccessBytes;
using bringup::toTargetBytes;

const char* const kPluginLogger = "tesk.ta.kvx";
const char* const kCapturePattern = "%p %c: %m%n";
const char* const kDeniedRange = "0xdead0000:0x100";
constexpr uint64_t kDeniedAddress = 0xdead0010;
constexpr uint64_t kScratch = 0x1000;
constexpr uint64_t kSharedAddress = 0x2000;
constexpr size_t kResultColumn = 52;
constexpr unsigned kWord = 4;

std::string answerName(int32_t answer) {
  switch (answer) {
    case vorn::TA_METHOD_SERVED:
      return "TA_METHOD_SERVED";
    case vorn::TA_METHOD_NOT_SERVED:
      return "TA_METHOD_NOT_SERVED";
    case vorn::TA_METHOD_MISSING:
      return "TA_METHOD_MISSING";
    default:
      return "unknown";
  }
}

std::string answerText(int32_t answer) { return std::to_string(answer) + " " + answerName(answer); }

/// A block with the given text attributes and, when there is a port, "ServerPort".
boost::shared_ptr<vorn::ConfigBlock> blockWith(const std::vector<std::pair<const char*, std::string>>& texts,
                                               std::optional<int> port) {
  auto config = boost::make_shared<vorn::ConfigBlock>();
  for (const auto& [name, value] : texts) {
    config->setAttribute(name, boost::make_shared<vorn::StringAttribute>(value));
  }
  if (port) {
    config->setAttribute("ServerPort",
                         boost::make_shared<vorn::UInt32Attribute>(static_cast<uint32_t>(*port)));
  }
  return config;
}

/// The endpoint of the one agent session, as the plug-in last opened it.
std::string openSession() {
  const vorn::KVXConnection shared = vorn::TaProcessKVX::sharedConnection();
  if (shared.getTargetPort() < 0) {
    return "none";
  }
  return common::Endpoint{shared.getTargetAddress(), shared.getTargetPort()}.text();
}

std::string hexBytes(const uint8_t* bytes, size_t count) {
  std::string text;
  for (size_t i = 0; i < count; ++i) {
    text += hexPadded(bytes[i], 2).substr(2);
    text += (i + 1 < count) ? " " : "";
  }
  return text;
}

vorn::ExtAddress processAddress(uint64_t address) {
  return vorn::ExtAddress{vorn::TaProcessKVX::memorySpaces().front(), address};
}

uint64_t readValue(vorn::TaProcess& process, uint64_t address, unsigned size) {
  uint8_t bytes[kMaxAccessBytes] = {};
  process.read_mem(processAddress(address), 1, size, bytes);
  return fromTargetBytes(bytes, size);
}

void writeValue(vorn::TaProcess& process, uint64_t address, uint64_t value, unsigned size) {
  uint8_t bytes[kMaxAccessBytes] = {};
  toTargetBytes(value, bytes, size);
  process.write_mem(processAddress(address), 1, size, bytes);
}

}  // namespace

Demo::Demo(std::string simulatorPath, std::ostream& out)
    : m_simulatorPath(std::move(simulatorPath)), m_out(out) {}

Demo::~Demo() = default;

void Demo::run() {
  m_agentA = std::make_unique<common::SimulatorProcess>(
      m_simulatorPath, std::vector<std::string>{"--quiet", "--deny", kDeniedRange});
  m_agentB = std::make_unique<common::SimulatorProcess>(m_simulatorPath, std::vector<std::string>{"--quiet"});
  m_out << "kvx-ta demo: a guided tour of the KVX target-access plug-in, as a debugger host uses it.\n"
        << "Two simulated agents run for it: A on " << m_agentA->endpoint().text() << " and B on "
        << m_agentB->endpoint().text() << ".\n";
  admission();
  process();
  memoryAndRegisters();
  reservations();
  oversizedAccess();
  refusedAccess();
  twoAgents();
  m_out << "\nDone. Both simulated agents stop with the demo.\n";
  m_processA.reset();
  m_agentB.reset();
  m_agentA.reset();
}

void Demo::admission() {
  heading("Admission");
  say("The host offers each configuration block to the plug-in's manager; registerClient answers\n"
      "whether the plug-in serves the access method the block names.");
  vorn::TaProcessManager& manager = vorn::TaProcessManager::getInstance();
  auto client = boost::make_shared<vorn::TargetConfig_TaProcessClient>();
  const common::Endpoint& a = m_agentA->endpoint();

  step("TaType \"KVX\", ServerAddress, ServerPort",
       answerText(manager.registerClient(client, bringup::servedConfiguration(a))));
  step("TaType \"JTAG\", ServerAddress, ServerPort",
       answerText(manager.registerClient(
           client, blockWith({{"TaType", "JTAG"}, {"ServerAddress", a.host}}, a.port))));
  step("ServerAddress, ServerPort, but no TaType",
       answerText(manager.registerClient(client, blockWith({{"ServerAddress", a.host}}, a.port))));
  const bool noProcess =
      !manager.getTaProcess("demo", blockWith({{"TaType", "KVX"}, {"ServerAddress", a.host}}, std::nullopt));
  step("getTaProcess: TaType \"KVX\" but no ServerPort",
       noProcess ? "no process (empty pointer)" : "a process");
}

void Demo::process() {
  heading("A process");
  vorn::TaProcessManager& manager = vorn::TaProcessManager::getInstance();
  m_processA = boost::dynamic_pointer_cast<vorn::TaProcessKVX>(
      manager.getTaProcess("demo A", bringup::servedConfiguration(m_agentA->endpoint())));
  if (!m_processA) {
    throw std::runtime_error("the plug-in gave no KVX process for agent A");
  }
  std::string spaces;
  for (const std::string& space : vorn::TaProcessKVX::memorySpaces()) {
    spaces += (spaces.empty() ? "" : ", ") + space;
  }
  step("getTaProcess for agent A",
       "process type " + std::to_string(m_processA->getProcessType()) + ", memory spaces: " + spaces);
  step("the open agent session", openSession());
  say("Creating a process opens nothing; its first access opens the session with its agent.");
}

void Demo::memoryAndRegisters() {
  heading("Memory and registers");
  say("Each access moves 1 to 8 bytes, least significant byte first in target memory.");
  vorn::TaProcessKVX& process = *m_processA;
  writeValue(process, kScratch, 0xcafef00d, kWord);
  step("write 4 bytes 0xcafef00d at 0x1000", "done; session now " + openSession());
  step("read 4 bytes at 0x1000", hexPadded(readValue(process, kScratch, kWord), 2 * kWord));
  writeValue(process, kScratch + 3, 0x5a, 1);
  step("write 1 byte 0x5a at 0x1003", "done");
  step("read 8 bytes at 0x1000",
       hexPadded(readValue(process, kScratch, kMaxAccessBytes), 2 * kMaxAccessBytes));

  const uint64_t pc = 0x401000;
  process.write_register("pc", 1, kMaxAccessBytes, &pc);
  step("write register pc = 0x401000", "done");
  uint64_t value = 0;
  process.read_register("pc", 1, kMaxAccessBytes, &value);
  step("read register pc", hexPadded(value, 2 * kMaxAccessBytes));
}

void Demo::reservations() {
  heading("Reservations");
  say("Reservations act on the session that is open (agent A's) and answer true or false.");
  vorn::TaProcessKVX& process = *m_processA;
  vorn::ExtAddress first;
  const bool reserved = process.reserve_mem(4096, first);
  step("reserve_mem 4096 bytes",
       reserved ? "block at " + hexPadded(first.address, 16) + " in space " + first.memorySpace : "false");
  vorn::ExtAddress second;
  const bool reservedAgain = process.reserve_mem(256, second);
  step("reserve_mem 256 bytes", reservedAgain ? "block at " + hexPadded(second.address, 16) : "false");
  step("unreserve_mem the first block", process.unreserve_mem(first) ? "true" : "false");
  step("unreserve_mem the first block again",
       process.unreserve_mem(first) ? "true" : "false (it is no longer reserved)");
  step("unreserve_all", process.unreserve_all() ? "true" : "false");
}

void Demo::oversizedAccess() {
  heading("An oversized access");
  say("The agent moves at most 8 bytes a call. Asked for 16, the plug-in moves the first 8 and\n"
      "logs a warning; it never splits the access. The buffer was filled with 0xee before.");
  uint8_t buffer[2 * kMaxAccessBytes];
  std::memset(buffer, 0xee, sizeof buffer);
  std::vector<std::string> logged;
  {
    common::LogRecorder recorder(kPluginLogger, kCapturePattern);
    m_processA->read_mem(processAddress(kScratch), 2, kMaxAccessBytes, buffer);
    logged = recorder.lines();
  }
  step("read_mem 2 x 8 bytes at 0x1000",
       hexBytes(buffer, kMaxAccessBytes) + " | " + hexBytes(buffer + kMaxAccessBytes, kMaxAccessBytes));
  if (logged.empty()) {
    step("logged on " + std::string(kPluginLogger), "nothing (the log configuration keeps its warnings out)");
  }
  for (const std::string& line : logged) {
    step("logged", line);
  }
}

void Demo::refusedAccess() {
  heading("A refused access");
  say(std::string("Agent A was started with --deny ") + kDeniedRange +
      ": it refuses every access touching that range,\nand the plug-in throws vorn::Exception.");
  try {
    readValue(*m_processA, kDeniedAddress, kWord);
    step("read 4 bytes at " + hexAddress(kDeniedAddress), "read, unexpectedly");
  } catch (const vorn::Exception& refusal) {
    step("read 4 bytes at " + hexAddress(kDeniedAddress), "vorn::Exception");
    step("  what()", refusal.what());
    step("  getFile(), getLine()", refusal.getFile() + ", " + std::to_string(refusal.getLine()));
  }
  step("read 4 bytes at 0x1000 (the session stays open)",
       hexPadded(readValue(*m_processA, kScratch, kWord), 2 * kWord));
}

void Demo::twoAgents() {
  heading("Two agents, one session");
  say("The agent library holds one session per host process. Each access first makes its own\n"
      "process's agent the open session, closing and reopening it when the agent differs.");
  auto processB =
      boost::dynamic_pointer_cast<vorn::TaProcessKVX>(vorn::TaProcessManager::getInstance().getTaProcess(
          "demo B", bringup::servedConfiguration(m_agentB->endpoint())));
  if (!processB) {
    throw std::runtime_error("the plug-in gave no KVX process for agent B");
  }
  writeValue(*processB, kSharedAddress, 0x22222222, kWord);
  step("B: write 0x22222222 at 0x2000", "done; session now " + openSession());
  writeValue(*m_processA, kSharedAddress, 0x11111111, kWord);
  step("A: write 0x11111111 at 0x2000", "done; session now " + openSession());
  const uint64_t fromB = readValue(*processB, kSharedAddress, kWord);
  step("B: read 4 bytes at 0x2000", hexPadded(fromB, 2 * kWord) + "; session now " + openSession());
  const uint64_t fromA = readValue(*m_processA, kSharedAddress, kWord);
  step("A: read 4 bytes at 0x2000", hexPadded(fromA, 2 * kWord) + "; session now " + openSession());
  say("Each agent kept its own value at the same address.");
}

void Demo::heading(const std::string& title) { m_out << '\n' << ++m_section << ". " << title << '\n'; }

void Demo::say(const std::string& text) {
  size_t start = 0;
  while (start <= text.size()) {
    const size_t end = text.find('\n', start);
    m_out << "   " << text.substr(start, end == std::string::npos ? std::string::npos : end - start) << '\n';
    if (end == std::string::npos) {
      break;
    }
    start = end + 1;
  }
}

void Demo::step(const std::string& what, const std::string& result) {
  std::string left = "   " + what;
  left.resize(std::max(left.size() + 1, kResultColumn), ' ');
  m_out << left << "-> " << result << '\n';
}

}  // namespace kvx::cli
