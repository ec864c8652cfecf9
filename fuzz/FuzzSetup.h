// What the fuzz targets share: a check that stops the run with a report when a property of the
// code under test fails (libFuzzer keeps the input that did it), and the simulated target that
// the handler target and its seed corpus agree on.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "sim/SimOptions.h"

/// Aborts with the failed condition, file and line, so that libFuzzer saves the input.
#define FUZZ_CHECK(condition)                                                            \
  do {                                                                                   \
    if (!(condition)) {                                                                  \
      std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #condition); \
      std::abort();                                                                      \
    }                                                                                    \
  } while (false)

namespace kvx::fuzz {

/// Four pages, so that running out of target memory is a few writes away.
constexpr uint64_t kMemoryLimit = 4 * 4096;
/// A closed range in the middle, and one across the top of the address space.
constexpr uint64_t kDeniedStart = 0x1000;
constexpr uint64_t kDeniedLength = 0x10;
constexpr uint64_t kWrappingDeniedStart = 0xFFFFFFFFFFFFFFF8ull;
constexpr uint64_t kWrappingDeniedLength = 0x10;
/// A small reservation region: 64 blocks, so that it fills up.
constexpr uint64_t kReserveBase = 0x80000000ull;
constexpr uint64_t kReserveSize = 4096;

inline sim::SimOptions targetOptions() {
  sim::SimOptions options;
  options.memoryLimit = kMemoryLimit;
  options.denied = {{kDeniedStart, kDeniedLength}, {kWrappingDeniedStart, kWrappingDeniedLength}};
  options.reserveBase = kReserveBase;
  options.reserveSize = kReserveSize;
  return options;
}

}  // namespace kvx::fuzz
