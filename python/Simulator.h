// A kvx-agent-sim started for Python code, quiet, with its stderr kept so that a simulator that
// cannot start reports why. Owns its child and stops it at the latest when destroyed.
//
// Any thread may call any operation; stopping is serialised. The child ends when the thread that
// started it ends (see common::SimulatorProcess), so Python code starts it from one that
// outlives it, such as the main thread.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "common/Endpoint.h"

namespace kvx::common {
class SimulatorProcess;
}  // namespace kvx::common

namespace kvx::python {

class Simulator {
 public:
  /// Starts the program that program() finds with `options`, as kvx-agent-sim takes them, and
  /// waits until it listens. Throws std::runtime_error when it cannot, quoting what it said.
  explicit Simulator(const std::vector<std::string>& options);
  ~Simulator();

  Simulator(const Simulator&) = delete;
  Simulator& operator=(const Simulator&) = delete;

  /// Where it listens; stays valid after stop().
  const common::Endpoint& endpoint() const { return m_endpoint; }
  /// Stops the simulator; does nothing when it is stopped already.
  void stop();

  /// The kvx-agent-sim to run: $KVX_AGENT_SIM when set; else the one in the bin/ beside the lib/
  /// that holds libta_kvx.so, in a build tree as in an installed prefix; else the first on PATH.
  /// Throws std::runtime_error when there is none.
  static std::string program();

 private:
  std::mutex m_mutex;
  /// Guarded by m_mutex; empty once stopped.
  std::unique_ptr<common::SimulatorProcess> m_process;
  common::Endpoint m_endpoint;
};

}  // namespace kvx::python
