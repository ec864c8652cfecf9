#include "bench/AgentInterposer.h"

#include <dlfcn.h>

#include <atomic>
#include <cstring>

#include "agent/TargetAgent.h"

namespace kvx::bench {
namespace {

/// The real library's entry points, filled once by bindRealAgent() and read-only after it.
struct RealAgent {
  decltype(&::start_session) startSession = nullptr;
  decltype(&::destroy_session) destroySession = nullptr;
  decltype(&::get_sock_status) getSockStatus = nullptr;
  decltype(&::io_write) ioWrite = nullptr;
  decltype(&::io_read) ioRead = nullptr;
  decltype(&::reg_write) regWrite = nullptr;
  decltype(&::reg_read) regRead = nullptr;
  decltype(&::ddr_reserve) ddrReserve = nullptr;
  decltype(&::ddr_unreserve) ddrUnreserve = nullptr;
  decltype(&::ddr_unreserve_all) ddrUnreserveAll = nullptr;
};

RealAgent g_real;
// Relaxed is enough: a benchmark sets the mode before its threads meet at the start of the
// timed loop, which orders the store before their calls.
std::atomic<AgentMode> g_mode{AgentMode::kNull};

bool isNull() { return g_mode.load(std::memory_order_relaxed) == AgentMode::kNull; }

template <typename Function>
bool bindNext(const char* name, Function& target, std::string& error) {
  target = reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
  if (target == nullptr) error = std::string("no ") + name + " behind the benchmark program";
  return target != nullptr;
}

}  // namespace

bool bindRealAgent(std::string& error) {
  return bindNext("start_session", g_real.startSession, error) &&
         bindNext("destroy_session", g_real.destroySession, error) &&
         bindNext("get_sock_status", g_real.getSockStatus, error) &&
         bindNext("io_write", g_real.ioWrite, error) && bindNext("io_read", g_real.ioRead, error) &&
         bindNext("reg_write", g_real.regWrite, error) && bindNext("reg_read", g_real.regRead, error) &&
         bindNext("ddr_reserve", g_real.ddrReserve, error) &&
         bindNext("ddr_unreserve", g_real.ddrUnreserve, error) &&
         bindNext("ddr_unreserve_all", g_real.ddrUnreserveAll, error);
}

void setAgentMode(AgentMode mode) { g_mode.store(mode, std::memory_order_relaxed); }

}  // namespace kvx::bench

using kvx::bench::g_real;
using kvx::bench::isNull;

extern "C" {

int32_t start_session(const char* address, int32_t port) {
  return isNull() ? 0 : g_real.startSession(address, port);
}

int32_t destroy_session(void) { return isNull() ? 0 : g_real.destroySession(); }

int32_t get_sock_status(void) { return isNull() ? 0 : g_real.getSockStatus(); }

int32_t io_write(uint64_t address, uint64_t value, uint32_t size) {
  return isNull() ? 0 : g_real.ioWrite(address, value, size);
}

int32_t io_read(uint64_t address, uint8_t* buffer, uint32_t size) {
  if (!isNull()) return g_real.ioRead(address, buffer, size);
  std::memset(buffer, 0, size);
  return 0;
}

int32_t reg_write(const char* name, uint64_t value) { return isNull() ? 0 : g_real.regWrite(name, value); }

int32_t reg_read(const char* name, void* destination) {
  if (!isNull()) return g_real.regRead(name, destination);
  std::memset(destination, 0, sizeof(uint64_t));
  return 0;
}

int32_t ddr_reserve(uint64_t size, uint64_t* address) {
  if (!isNull()) return g_real.ddrReserve(size, address);
  *address = 0;
  return 0;
}

int32_t ddr_unreserve(uint64_t address) { return isNull() ? 0 : g_real.ddrUnreserve(address); }

int32_t ddr_unreserve_all(void) { return isNull() ? 0 : g_real.ddrUnreserveAll(); }

}  // extern "C"
