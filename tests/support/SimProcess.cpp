#include "tests/support/SimProcess.h"

#include <signal.h>

#include <chrono>
#include <cstdlib>
#include <stdexcept>
#include <thread>

#include "tests/support/ChildProcess.h"

namespace kvx::test {
namespace {

const std::string kReadyPrefix = "listening on ";

[[noreturn]] void fail(const std::string& what) { throw std::runtime_error("kvx-agent-sim: " + what); }

}  // namespace

SimProcess::SimProcess(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), TA_KVX_SIM_PATH);
  ChildProcess::Options options;
  options.stderrTo = ChildProcess::Stderr::kInherited;
  options.ownGroup = false;
  m_child = std::make_unique<ChildProcess>(arguments, options);

  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  std::string out;
  while ((out = m_child->out()).find('\n') == std::string::npos) {
    if (m_child->reap(false) >= 0) fail("exited before listening");
    if (std::chrono::steady_clock::now() > end) fail("no \"listening on\" line in time");
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  const std::string line = out.substr(0, out.find('\n'));
  const size_t colon = line.rfind(':');
  if (line.rfind(kReadyPrefix, 0) != 0 || colon == std::string::npos) fail("unexpected first line: " + line);
  m_address = line.substr(kReadyPrefix.size(), colon - kReadyPrefix.size());
  if (m_address.size() >= 2 && m_address.front() == '[' && m_address.back() == ']') {
    m_address = m_address.substr(1, m_address.size() - 2);
  }
  const unsigned long port = std::strtoul(line.c_str() + colon + 1, nullptr, 10);
  if (port == 0 || port > 65535) fail("no port in: " + line);
  m_port = static_cast<uint16_t>(port);
}

SimProcess::~SimProcess() { stop(); }

pid_t SimProcess::pid() const { return m_child->pid(); }

int SimProcess::stop() {
  if (m_child->pid() < 0) return -1;
  m_child->signal(SIGTERM);
  return m_child->reap(true);
}

void SimProcess::kill() {
  m_child->signal(SIGKILL);
  m_child->reap(true);
}

bool SimProcess::restart(std::vector<std::string> arguments) {
  kill();
  arguments.insert(arguments.end(), {"--port", std::to_string(m_port)});
  for (int attempt = 0; attempt < 20; ++attempt) {
    try {
      SimProcess next(arguments);
      std::swap(m_child, next.m_child);
      return true;
    } catch (const std::runtime_error&) {
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
  }
  return false;
}

}  // namespace kvx::test
