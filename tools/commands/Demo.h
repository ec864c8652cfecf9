// The guided tour behind `kvx-ta demo`: what a debugger host does with the plug-in, step by step,
// on two simulated agents that it starts and stops itself, with a transcript of each step and its
// result. It drives the plug-in's interfaces directly, as a host would, so the transcript shows
// their answers as they are. Single-threaded.
#pragma once

#include <iosfwd>
#include <memory>
#include <string>

#include <boost/shared_ptr.hpp>

namespace vorn {
class TaProcessKVX;
}  // namespace vorn

namespace kvx::common {
class SimulatorProcess;
}  // namespace kvx::common

namespace kvx::cli {

class Demo {
 public:
  /// A tour on simulators started from `simulatorPath`, written to `out`.
  Demo(std::string simulatorPath, std::ostream& out);
  ~Demo();

  Demo(const Demo&) = delete;
  Demo& operator=(const Demo&) = delete;

  /// Starts the simulators, walks through every step and stops them. Throws what the plug-in
  /// throws where a step was expected to succeed.
  void run();

 private:
  void admission();
  void process();
  void memoryAndRegisters();
  void reservations();
  void oversizedAccess();
  void refusedAccess();
  void twoAgents();

  void heading(const std::string& title);
  void say(const std::string& text);
  void step(const std::string& what, const std::string& result);

  std::string m_simulatorPath;
  std::ostream& m_out;
  int m_section = 0;
  std::unique_ptr<common::SimulatorProcess> m_agentA;
  std::unique_ptr<common::SimulatorProcess> m_agentB;
  boost::shared_ptr<vorn::TaProcessKVX> m_processA;
};

}  // namespace kvx::cli
