#include "python/Simulator.h"

#include <dlfcn.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>

#include "common/SimulatorProcess.h"
#include "manager/TaProcessManager.h"

namespace kvx::python {
namespace {

const char* const kProgramName = "kvx-agent-sim";
const char* const kProgramVariable = "KVX_AGENT_SIM";
/// Where the programs are, seen from the directory of the libraries.
const char* const kBinFromLib = "/../bin/";

bool executable(const std::string& path) { return ::access(path.c_str(), X_OK) == 0; }

/// The directory of the loaded libta_kvx.so, found through one of its functions.
std::string pluginDirectory() {
  Dl_info info{};
  if (::dladdr(reinterpret_cast<void*>(&vorn::TaProcessManager::getInstance), &info) == 0 ||
      info.dli_fname == nullptr) {
    return "";
  }
  const std::string path = info.dli_fname;
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? "." : path.substr(0, slash);
}

/// The first `kProgramName` in a directory of PATH; empty when there is none.
std::string onPath() {
  const char* path = std::getenv("PATH");
  std::string directories = path != nullptr ? path : "";
  for (size_t start = 0; start <= directories.size();) {
    size_t end = directories.find(':', start);
    if (end == std::string::npos) end = directories.size();
    // An empty entry means the working directory, as for the shell.
    const std::string directory = end == start ? "." : directories.substr(start, end - start);
    const std::string candidate = directory + "/" + kProgramName;
    if (executable(candidate)) return candidate;
    start = end + 1;
  }
  return "";
}

}  // namespace

Simulator::Simulator(const std::vector<std::string>& options) {
  std::vector<std::string> arguments{"--quiet"};
  arguments.insert(arguments.end(), options.begin(), options.end());
  m_process = std::make_unique<common::SimulatorProcess>(program(), std::move(arguments),
                                                         common::SimulatorProcess::Stderr::kCapture);
  m_endpoint = m_process->endpoint();
}

Simulator::~Simulator() = default;

void Simulator::stop() {
  std::lock_guard<std::mutex> guard(m_mutex);
  m_process.reset();
}

std::string Simulator::program() {
  if (const char* given = std::getenv(kProgramVariable)) return given;
  const std::string directory = pluginDirectory();
  if (!directory.empty()) {
    const std::string beside = directory + kBinFromLib + kProgramName;
    if (executable(beside)) return beside;
  }
  std::string found = onPath();
  if (found.empty()) {
    throw std::runtime_error(std::string("cannot find ") + kProgramName + ": set " + kProgramVariable +
                             ", or put it on PATH");
  }
  return found;
}

}  // namespace kvx::python
