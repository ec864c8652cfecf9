// What a transfer split between workers and its workers say to each other, in one place so that
// both sides read what the other writes. A worker is kvx-ta in worker mode, on the same agent,
// given its part as an ordinary command. It reports on stderr, one JSON object a line: progress
// ({"done": N}, the bytes moved since its last report) and its failure ({"error", "reason",
// "kind"}); a dump part writes its raw bytes on stdout and a CRC-32 part its result
// ({"crc32": "0x..."}).
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "bringup/Error.h"
#include "bringup/Ranges.h"
#include "bringup/transfer/Progress.h"
#include "common/Endpoint.h"

namespace kvx::bringup {

/// The global options that start kvx-ta as a worker on the agent at `agent`: the deadline of each
/// agent call when one is set, and --force when the transfer may be large.
std::vector<std::string> workerOptions(const common::Endpoint& agent, std::optional<unsigned> timeoutMs,
                                       bool force);

/// The worker's commands for a part of a dump, a fill with `pattern` (as many bytes as the pattern
/// has, in target memory order, starting at the part's first byte) and a CRC-32.
/// Each with the transfer's access width, when it has one.
std::vector<std::string> dumpPartCommand(const Range& part, unsigned width);
std::vector<std::string> fillPartCommand(const Range& part, const std::vector<uint8_t>& pattern,
                                         unsigned width);
std::vector<std::string> crc32PartCommand(const Range& part, unsigned width);
/// The worker's command for the bytes of an image that lie in `part`: "load" or "verify", then
/// the image's file and the options that read it as the whole transfer does.
std::vector<std::string> imagePartCommand(const char* command, const std::vector<std::string>& imageWords,
                                          const Range& part);
/// The value of the worker-only --part option for `part`, and back; none when `text` is no part.
std::string partOption(const Range& part);
std::optional<Range> parsePartOption(const std::string& text);

/// The lines a worker writes. A failure is also how kvx-ta --json reports one: what was attempted
/// ("error"), why ("reason"; for a usage error "usage error"), the kind, and where known the
/// script's file and line and the agent call with its status.
std::string progressMessage(uint64_t bytes);
std::string failureMessage(const Error& error);
std::string crc32Message(uint32_t crc);

/// What a worker's search of its part found: the matches wholly inside it, and its first and
/// last bytes, one fewer than the pattern has, for the matches across its seams.
struct SearchResult {
  std::vector<uint64_t> matches;
  std::vector<uint8_t> head;
  std::vector<uint8_t> tail;
};
std::vector<std::string> searchPartCommand(const Range& part, const std::vector<uint8_t>& pattern,
                                           unsigned width);
std::string searchMessage(const SearchResult& result);

/// One line that a worker wrote, read back; every field empty when the line is not a message.
struct WorkerMessage {
  std::optional<uint64_t> progress;
  std::optional<Error> failure;
  std::optional<uint32_t> crc32;
  std::optional<SearchResult> search;
};
WorkerMessage parseWorkerMessage(const std::string& line);

/// A worker's progress: reports the bytes moved to the kvx-ta that runs it, on stderr, at most ten
/// times a second, and the rest when finished.
class WorkerProgress : public Progress {
 public:
  void advance(uint64_t bytes) override;
  /// Reports what was moved since the last report.
  void finish();

 private:
  using Clock = std::chrono::steady_clock;

  void report();

  Clock::time_point m_lastReport = Clock::now();
  uint64_t m_unreported = 0;
};

}  // namespace kvx::bringup
