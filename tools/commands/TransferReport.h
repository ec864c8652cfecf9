// How far a transfer got, when it failed or was stopped: kvx-ta adds it to the failure, so that
// the user knows what the target (or a file) holds now.
#pragma once

#include <string>

#include "bringup/Error.h"
#include "bringup/Numbers.h"
#include "bringup/Ranges.h"
#include "bringup/transfer/Transfer.h"
#include "tools/output/TerminalProgress.h"

namespace kvx::cli {

/// Runs `work`, a transfer over `range` whose bytes are `verb` ("written", "read"); a failure
/// gains "; N of M bytes were VERB" and, when one process moved them in address order, up to
/// which address.
template <typename Work>
void reportingProgress(const TerminalProgress& progress, const char* verb, const bringup::Range& range,
                       const bringup::Transfer& transfer, Work work) {
  try {
    work();
  } catch (const bringup::Error& failure) {
    if (failure.kind() == bringup::Error::Kind::kUsage) throw;
    const uint64_t done = progress.done();
    std::string note =
        "; " + std::to_string(done) + " of " + bringup::byteCount(range.length) + " were " + verb;
    if (done != 0 && transfer.options().jobs == 1)
      note += ", up to " + bringup::hexAddress(range.address + done - 1);
    if (done != 0 && transfer.options().jobs > 1)
      note += " by " + std::to_string(transfer.options().jobs) + " workers";
    throw failure.explained(note);
  }
}

}  // namespace kvx::cli
