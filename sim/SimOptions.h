// What the simulated agent is told on its command line: where to listen, how much target it
// simulates and which faults it injects. A plain value, filled once by main() and then read only.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kvx::sim {

/// A range of target addresses closed to reads and writes.
struct DenyRange {
  uint64_t start = 0;
  uint64_t length = 0;
};

struct SimOptions {
  std::string bindAddress = "127.0.0.1";
  uint16_t port = 0;  ///< 0 lets the system pick a free port
  uint64_t memoryLimit = 64ull << 20;
  std::vector<DenyRange> denied;
  uint64_t reserveBase = 0x80000000ull;
  uint64_t reserveSize = 16ull << 20;
  /// Close a connection after answering this many requests on it (the handshake counts).
  std::optional<uint64_t> dropAfter;
  /// Stop answering a connection after this many requests, but keep it open.
  std::optional<uint64_t> hangAfter;
  bool refuseSessions = false;
  /// One session at a time: another client's handshake is refused as busy while one is open.
  bool exclusive = false;
  bool quiet = false;
  /// How long every reply is held back, as if the agent were that far away.
  std::chrono::microseconds latency{0};
  /// Whether a connection in a burst of requests is polled for the next one before the server
  /// goes back to waiting (see Connection).
  bool spin = true;
  /// A program and its arguments to run while serving; empty to serve until a signal.
  std::vector<std::string> command;
};

}  // namespace kvx::sim
