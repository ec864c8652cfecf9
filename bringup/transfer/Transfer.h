// What every transfer runs in, and how it moves a range: its target, opened on first use (a
// transfer whose work all goes to workers opens none), who watches it (Progress), and who may
// stop it (a checkpoint, called before every access, that throws Error(kInterrupted) to stop).
// A range goes in accesses as Ranges.h cuts it, each made once and never retried.
//
// Single-threaded: one transfer runs on one thread. The front end owns what it refers to.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "bringup/Error.h"
#include "bringup/Ranges.h"
#include "bringup/transfer/Progress.h"

namespace kvx::bringup {

class Target;

/// How to start a worker: the kvx-ta program and the global options that put it on the
/// transfer's agent, in worker mode.
struct WorkerLaunch {
  std::string program;
  std::vector<std::string> options;
};

/// Sleeps for `duration`, calling `checkpoint` before and at least every 50 ms, so that a
/// checkpoint that throws ends the sleep at once.
void sleepFor(std::chrono::milliseconds duration, const std::function<void()>& checkpoint);

/// The most bytes a transfer moves unless forced: a mistyped length must not run for hours.
constexpr uint64_t kLargestUnforced = uint64_t{256} << 20;
/// Throws a usage Error when `length` is above kLargestUnforced and `force` is not set.
void checkTransferBound(uint64_t length, bool force);

class Transfer {
 public:
  /// Receives the bytes read, in address order, one access at a time.
  using Sink = std::function<void(const uint8_t* bytes, size_t count)>;
  /// Fills `bytes` with the `count` bytes of the range that start `offset` bytes into it.
  using Source = std::function<void(uint64_t offset, uint8_t* bytes, size_t count)>;

  /// Where the target differed from what was expected.
  struct Mismatch {
    uint64_t address;
    uint8_t expected;
    uint8_t found;
  };

  struct Options {
    /// Worker processes that share the work; 1: this process alone.
    unsigned jobs = 1;
    /// How to start them; required for jobs > 1.
    std::optional<WorkerLaunch> workers;
    /// Transfers above kLargestUnforced are allowed.
    bool force = false;
    /// The transfer is a worker's part of another: its failures leave how far it got for the
    /// transfer that runs it to say.
    bool worker = false;
    /// 1, 2, 4 or 8: every access moves exactly this many bytes, at multiples of it (the caller
    /// has checked that the ranges fit). 0: accesses as Ranges.h cuts them.
    unsigned width = 0;
  };

  /// `target` opens the target when first called; `checkpoint`, when set, runs before every
  /// access and between the waits of workers.
  Transfer(std::function<Target&()> target, Progress& progress, std::function<void()> checkpoint,
           Options options);

  Target& target() { return m_target(); }
  /// Counts `bytes` more as moved, and tells the progress.
  void advance(uint64_t bytes);
  /// The bytes moved so far, by this process and its workers.
  uint64_t moved() const { return m_moved; }
  const Options& options() const { return m_options; }
  /// Throws to stop the transfer when the front end says so.
  void checkpoint() const;

  /// Reads `range` into `sink`.
  void read(const Range& range, const Sink& sink);
  /// Writes `range` from `source`.
  void write(const Range& range, const Source& source);
  /// Reads `range` and stops at the first byte that differs from `source`.
  std::optional<Mismatch> verify(const Range& range, const Source& source);

  /// Runs `work`, which moves `total` bytes (none: not known beforehand); a failure other than a
  /// usage error gains how far it got: "; N of M bytes were VERB" and, when this process moved
  /// them, the address of the last, so that the user knows what the target holds now.
  template <typename Work>
  void reportingHowFar(const char* verb, std::optional<uint64_t> total, Work work);

  /// Throws a usage Error when `length` is above kLargestUnforced and the options do not force it.
  void checkBound(uint64_t length) const { checkTransferBound(length, m_options.force); }

 private:
  /// Calls `access(offset, size)` for each access of `range`, in address order, until it returns
  /// false.
  template <typename Access>
  void eachAccess(const Range& range, Access access);

  /// `failure`, with how far the transfer of `total` bytes got.
  Error howFar(const Error& failure, const char* verb, std::optional<uint64_t> total) const;

  std::function<Target&()> m_target;
  Progress& m_progress;
  uint64_t m_moved = 0;
  /// The address of the last byte that this process moved, once it moved one.
  std::optional<uint64_t> m_lastAddress;
  std::function<void()> m_checkpoint;
  Options m_options;
};

template <typename Work>
void Transfer::reportingHowFar(const char* verb, std::optional<uint64_t> total, Work work) {
  try {
    work();
  } catch (const Error& failure) {
    if (failure.kind() == Error::Kind::kUsage || m_options.worker) throw;
    throw howFar(failure, verb, total);
  }
}

}  // namespace kvx::bringup
