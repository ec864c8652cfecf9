// Every call that the plug-in makes into the agent library, seen as it passes. This library
// defines the ten functions of agent/TargetAgent.h and forwards each to the next definition in
// load order: the agent library beside the plug-in. A program that links it exports them (the
// link option that kvx_bringup gives its users), so the dynamic linker binds the plug-in's calls
// here first. Nothing else changes: the same calls, with the same arguments, reach the same
// library.
//
// Each call is recorded on the calling thread, so a front end can say why an access failed from
// the status that the agent library returned, without asking the agent again, and an observer
// may watch every call (kvx-ta --trace). Any thread may call in; each thread sees its own calls.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

namespace kvx::bringup {

/// The ten functions of the agent library.
enum class AgentFunction {
  kStartSession,
  kDestroySession,
  kGetSockStatus,
  kIoWrite,
  kIoRead,
  kRegWrite,
  kRegRead,
  kDdrReserve,
  kDdrUnreserve,
  kDdrUnreserveAll,
};

/// "start_session", "io_read", ...
const char* functionName(AgentFunction function);

/// One call and how it ended.
struct AgentCall {
  AgentFunction function = AgentFunction::kGetSockStatus;
  /// The numeric arguments in order (an address, a size, a value, a port); unused ones are 0.
  uint64_t arguments[2] = {};
  /// The text argument of start_session (the address) and of the register calls (the name);
  /// valid only while an observer runs, null in a recorded call.
  const char* text = nullptr;
  int32_t status = 0;
  std::chrono::nanoseconds elapsed{0};
  /// Counts this thread's calls; 0 before its first.
  uint64_t sequence = 0;

  /// The call as C shows it: io_read(0x1000, 4). Only while an observer runs, where `text` is
  /// valid, does it show the address or register name.
  std::string signature() const;
};

/// The last call that this thread made; `sequence` 0 when it made none.
const AgentCall& lastAgentCall();

/// The status and address of the last start_session of the process, from any thread: why no
/// session is open after it failed. `port` is -1 before the first.
struct SessionAttempt {
  std::string address;
  int32_t port = -1;
  int32_t status = 0;
};
SessionAttempt lastSessionAttempt();

/// Receives every call once it has returned, on the thread that made it, while the plug-in still
/// holds its session lock: it must not call the plug-in. Empty to stop. Set it before the calls
/// to watch begin; it is not synchronised with calls in flight.
void observeAgentCalls(std::function<void(const AgentCall&)> observer);

/// The agent library the calls go to, as the dynamic linker found it.
struct AgentLibrary {
  std::string path;
  /// It is the stand-in built with this program, whose statuses this library knows: the GNU
  /// build-id of the loaded file is the one recorded when the stand-in was built.
  bool known = false;
};
const AgentLibrary& agentLibrary();

}  // namespace kvx::bringup
