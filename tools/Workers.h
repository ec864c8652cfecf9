// Parallel transfers. The agent library holds one session per process and moves at most 8 bytes
// a call, so a transfer is bound by one round trip an access; with an agent far away, more
// processes mean more round trips in flight. Workers splits a range into contiguous parts and
// runs a kvx-ta worker process for each, with a session of its own through the plug-in. Their
// progress adds up into one bar; what they print on stdout comes back in part order; when one
// fails, the others are stopped and the failure names the failed part's range.
//
// Single-threaded: the caller's thread runs the event loop that reads the workers' pipes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace kvx::cli {

class Progress;
class Session;

class Workers {
 public:
  struct Part {
    uint64_t address;
    uint64_t length;
  };

  /// Receives what the worker for part `index` printed on stdout, in order, as it arrives.
  using Sink = std::function<void(size_t index, const uint8_t* bytes, size_t size)>;

  /// `length` bytes from `address` in `jobs` contiguous parts, split at 8-byte boundaries so that
  /// each part's accesses are aligned as a single transfer's would be. Fewer parts for a short
  /// range; none for an empty one.
  static std::vector<Part> split(uint64_t address, uint64_t length, unsigned jobs);

  /// Runs the kvx-ta command `command(part)` (its words after the global options) for every part
  /// at once, each in a worker on the session's agent, and returns when all are done. Throws
  /// Failure naming the part when a worker fails, after stopping the others; Failure when the
  /// run is interrupted.
  static void run(Session& session, Progress& progress, const std::vector<Part>& parts,
                  const std::function<std::vector<std::string>(const Part&)>& command, const Sink& sink);
};

}  // namespace kvx::cli
