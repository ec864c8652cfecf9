// The agent library as the benchmarks see it. The benchmark program defines and exports the ten
// functions of agent/TargetAgent.h, so the plug-in's calls bind to these definitions rather than
// to libtarget.agent.so's. A process-wide mode makes them either answer at once, which gives the
// floor of a call, or forward to the real library loaded behind them.
//
// The mode may be set and the functions called from any thread; a benchmark sets the mode before
// its timed loop and all threads of one benchmark use the same mode.
#pragma once

#include <string>

namespace kvx::bench {

enum class AgentMode {
  kNull,     ///< every call succeeds at once; reads store zeros
  kForward,  ///< every call goes to the next definition in load order: libtarget.agent.so's
};

/// Looks up the real library's ten functions, once, before any call is forwarded. False, with
/// the missing name in `error`, when the library behind the program lacks one.
bool bindRealAgent(std::string& error);

void setAgentMode(AgentMode mode);

}  // namespace kvx::bench
