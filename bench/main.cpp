// ta_kvx_bench: the benchmarks of the plug-in and the agent library, with two kvx-agent-sim
// children to run the loopback cases against.
//
// Besides Google Benchmark's own flags it takes --sim_cpu=N, which pins both simulators to CPU N
// (pin this program with taskset to choose whether they share a core). It exits with 1 when a
// simulator cannot be started or a benchmark fails, and with 2 on an unknown flag.

#include <sched.h>

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <exception>
#include <iostream>
#include <optional>
#include <string>

#include "bench/AgentInterposer.h"
#include "bench/BenchEnvironment.h"

namespace {

constexpr const char* kSimCpuFlag = "--sim_cpu=";

/// Takes --sim_cpu=N out of the arguments, leaving the rest for Google Benchmark. False when N
/// is not a CPU number.
bool takeSimCpu(int& argc, char** argv, std::optional<int>& cpu) {
  int kept = 1;
  for (int i = 1; i < argc; ++i) {
    if (std::strncmp(argv[i], kSimCpuFlag, std::strlen(kSimCpuFlag)) != 0) {
      argv[kept++] = argv[i];
      continue;
    }
    const char* text = argv[i] + std::strlen(kSimCpuFlag);
    char* end = nullptr;
    const long value = std::strtol(text, &end, 10);
    if (*text == '\0' || *end != '\0' || value < 0 || value >= CPU_SETSIZE) return false;
    cpu = static_cast<int>(value);
  }
  argc = kept;
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  std::optional<int> simCpu;
  if (!takeSimCpu(argc, argv, simCpu)) {
    std::cerr << "ta_kvx_bench: " << kSimCpuFlag << " takes a CPU number\n";
    return 2;
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;

  std::string error;
  if (!kvx::bench::bindRealAgent(error)) {
    std::cerr << "ta_kvx_bench: " << error << '\n';
    return 1;
  }
  try {
    kvx::bench::BenchEnvironment environment(simCpu);
    benchmark::RunSpecifiedBenchmarks();
  } catch (const std::exception& e) {
    std::cerr << "ta_kvx_bench: " << e.what() << '\n';
    return 1;
  }
  benchmark::Shutdown();
  return kvx::bench::anyFailed() ? 1 : 0;
}
