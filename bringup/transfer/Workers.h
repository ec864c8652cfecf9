// Parallel transfers. The agent library holds one session per process and moves at most 8 bytes
// a call, so a transfer is bound by one round trip an access; with an agent far away, more
// processes mean more round trips in flight. runWorkers runs one kvx-ta worker process per part
// of a transfer, each with a session of its own through the plug-in. Their progress adds up in
// the transfer's Progress; what they print on stdout comes back by part; when one fails, the
// others are stopped and the failure names the failed part's range.
//
// Runs on the caller's thread, which reads the workers' pipes; a checkpoint that throws stops
// them all.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "bringup/Ranges.h"

namespace kvx::bringup {

class Transfer;

/// Receives what the worker for part `index` printed on stdout, in order, as it arrives.
using WorkerOutput = std::function<void(size_t index, const uint8_t* bytes, size_t size)>;

/// Runs the worker command `command(part)` (the words after kvx-ta's global options) for every
/// part at once, with the transfer's worker launch, and returns when all are done. Throws the
/// first worker's Error, naming its part, after stopping the others; the checkpoint's Error when
/// the transfer is stopped.
void runWorkers(Transfer& transfer, const std::vector<Range>& parts,
                const std::function<std::vector<std::string>(const Range&)>& command,
                const WorkerOutput& output);

/// How many workers a transfer of `length` bytes gets by default against an agent at `host`.
unsigned defaultJobs(const std::string& host, uint64_t length);

}  // namespace kvx::bringup
