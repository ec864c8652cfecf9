#include "bringup/AgentCalls.h"

#include <dlfcn.h>
#include <elf.h>
#include <link.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <vector>

#include "agent/TargetAgent.h"
#include "bringup/StandInBuildId.h"

namespace kvx::bringup {
namespace {

using Clock = std::chrono::steady_clock;

/// Returned when the program runs without an agent library behind it, which the plug-in's
/// dependencies rule out; a status that no agent library is known to use.
constexpr int32_t kNoAgentLibrary = -1000;

/// The agent library's entry points: the definitions after this program's in load order.
struct NextAgent {
  decltype(&::start_session) startSession;
  decltype(&::destroy_session) destroySession;
  decltype(&::get_sock_status) getSockStatus;
  decltype(&::io_write) ioWrite;
  decltype(&::io_read) ioRead;
  decltype(&::reg_write) regWrite;
  decltype(&::reg_read) regRead;
  decltype(&::ddr_reserve) ddrReserve;
  decltype(&::ddr_unreserve) ddrUnreserve;
  decltype(&::ddr_unreserve_all) ddrUnreserveAll;
};

template <typename Function>
Function next(const char* name) {
  return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

/// Looked up once, on the first call; read-only after that.
const NextAgent& nextAgent() {
  static const NextAgent agent{
      next<decltype(&::start_session)>("start_session"),
      next<decltype(&::destroy_session)>("destroy_session"),
      next<decltype(&::get_sock_status)>("get_sock_status"),
      next<decltype(&::io_write)>("io_write"),
      next<decltype(&::io_read)>("io_read"),
      next<decltype(&::reg_write)>("reg_write"),
      next<decltype(&::reg_read)>("reg_read"),
      next<decltype(&::ddr_reserve)>("ddr_reserve"),
      next<decltype(&::ddr_unreserve)>("ddr_unreserve"),
      next<decltype(&::ddr_unreserve_all)>("ddr_unreserve_all"),
  };
  return agent;
}

thread_local AgentCall t_last;

/// Guards g_lastAttempt.
std::mutex g_attemptMutex;
SessionAttempt g_lastAttempt;

/// Set before the calls it watches, read by every call.
std::atomic<std::function<void(const AgentCall&)>*> g_observer{nullptr};

/// Makes one call: times it, records it on this thread and shows it to the observer.
template <typename Forward>
int32_t call(AgentFunction function, uint64_t first, uint64_t second, const char* text, Forward forward) {
  const Clock::time_point start = Clock::now();
  const int32_t status = forward();
  AgentCall record;
  record.function = function;
  record.arguments[0] = first;
  record.arguments[1] = second;
  record.status = status;
  record.elapsed = Clock::now() - start;
  record.sequence = t_last.sequence + 1;
  if (auto* observer = g_observer.load(std::memory_order_acquire)) {
    record.text = text;
    (*observer)(record);
    record.text = nullptr;
  }
  t_last = record;
  return status;
}

/// The GNU build-id of the loaded object that holds `address`, as lower-case hex; "" if none.
std::string buildIdAt(const void* address) {
  struct Search {
    uintptr_t address;
    std::string id;
  } search{reinterpret_cast<uintptr_t>(address), {}};
  ::dl_iterate_phdr(
      [](dl_phdr_info* info, size_t, void* data) {
        auto& wanted = *static_cast<Search*>(data);
        bool holds = false;
        for (int i = 0; i < info->dlpi_phnum; ++i) {
          const ElfW(Phdr)& segment = info->dlpi_phdr[i];
          const uintptr_t start = info->dlpi_addr + segment.p_vaddr;
          holds |= segment.p_type == PT_LOAD && wanted.address >= start &&
                   wanted.address < start + segment.p_memsz;
        }
        if (!holds) return 0;
        for (int i = 0; i < info->dlpi_phnum; ++i) {
          const ElfW(Phdr)& segment = info->dlpi_phdr[i];
          if (segment.p_type != PT_NOTE) continue;
          const auto* notes = reinterpret_cast<const uint8_t*>(info->dlpi_addr + segment.p_vaddr);
          for (size_t at = 0; at + sizeof(ElfW(Nhdr)) <= segment.p_memsz;) {
            ElfW(Nhdr) note;
            std::memcpy(&note, notes + at, sizeof note);
            const size_t name = at + sizeof note;
            const size_t descriptor = name + ((note.n_namesz + 3) & ~size_t{3});
            if (note.n_type == NT_GNU_BUILD_ID && note.n_namesz == 4 &&
                std::memcmp(notes + name, "GNU", 4) == 0) {
              for (size_t b = 0; b < note.n_descsz; ++b) {
                char hex[3];
                std::snprintf(hex, sizeof hex, "%02x", notes[descriptor + b]);
                wanted.id += hex;
              }
              return 1;
            }
            at = descriptor + ((note.n_descsz + 3) & ~size_t{3});
          }
        }
        return 1;
      },
      &search);
  return search.id;
}

}  // namespace

const char* functionName(AgentFunction function) {
  switch (function) {
    case AgentFunction::kStartSession:
      return "start_session";
    case AgentFunction::kDestroySession:
      return "destroy_session";
    case AgentFunction::kGetSockStatus:
      return "get_sock_status";
    case AgentFunction::kIoWrite:
      return "io_write";
    case AgentFunction::kIoRead:
      return "io_read";
    case AgentFunction::kRegWrite:
      return "reg_write";
    case AgentFunction::kRegRead:
      return "reg_read";
    case AgentFunction::kDdrReserve:
      return "ddr_reserve";
    case AgentFunction::kDdrUnreserve:
      return "ddr_unreserve";
    case AgentFunction::kDdrUnreserveAll:
      return "ddr_unreserve_all";
  }
  return "?";
}

std::string AgentCall::signature() const {
  const auto hex = [](uint64_t value) {
    char digits[24];
    std::snprintf(digits, sizeof digits, "0x%llx", static_cast<unsigned long long>(value));
    return std::string(digits);
  };
  const std::string quoted = text != nullptr ? "\"" + std::string(text) + "\"" : "...";
  std::string shown;
  switch (function) {
    case AgentFunction::kStartSession:
      shown = quoted + ", " + std::to_string(static_cast<int32_t>(arguments[0]));
      break;
    case AgentFunction::kIoWrite:
      shown = hex(arguments[0]) + ", " + hex(arguments[1]);
      break;
    case AgentFunction::kIoRead:
      shown = hex(arguments[0]) + ", " + std::to_string(arguments[1]);
      break;
    case AgentFunction::kDdrReserve:
      shown = std::to_string(arguments[0]);
      break;
    case AgentFunction::kRegWrite:
      shown = quoted + ", " + hex(arguments[0]);
      break;
    case AgentFunction::kRegRead:
      shown = quoted;
      break;
    case AgentFunction::kDdrUnreserve:
      shown = hex(arguments[0]);
      break;
    case AgentFunction::kDestroySession:
    case AgentFunction::kGetSockStatus:
    case AgentFunction::kDdrUnreserveAll:
      break;
  }
  return std::string(functionName(function)) + "(" + shown + ")";
}

const AgentCall& lastAgentCall() { return t_last; }

SessionAttempt lastSessionAttempt() {
  std::lock_guard<std::mutex> lock(g_attemptMutex);
  return g_lastAttempt;
}

void observeAgentCalls(std::function<void(const AgentCall&)> observer) {
  // Every observer ever set is kept until the program ends: a call on another thread may still
  // be running the one that is replaced. A program sets one or two, so the list stays short.
  using Observer = std::function<void(const AgentCall&)>;
  static std::mutex keptMutex;
  static auto* const kept = new std::vector<std::unique_ptr<Observer>>();  // never destroyed
  Observer* current = nullptr;
  if (observer) {
    std::lock_guard<std::mutex> lock(keptMutex);
    kept->push_back(std::make_unique<Observer>(std::move(observer)));
    current = kept->back().get();
  }
  g_observer.store(current, std::memory_order_release);
}

const AgentLibrary& agentLibrary() {
  static const AgentLibrary library = [] {
    AgentLibrary found;
    Dl_info info{};
    const auto ioRead = reinterpret_cast<const void*>(nextAgent().ioRead);
    if (ioRead != nullptr && ::dladdr(ioRead, &info) != 0 && info.dli_fname != nullptr) {
      // As the user would name it: "bin/../lib/" as "lib/".
      char* resolved = ::realpath(info.dli_fname, nullptr);
      found.path = resolved != nullptr ? resolved : info.dli_fname;
      std::free(resolved);
    }
    found.known = ioRead != nullptr && buildIdAt(ioRead) == kStandInBuildId;
    return found;
  }();
  return library;
}

}  // namespace kvx::bringup

// ---- The ten functions, as the plug-in calls them ----

namespace {

using kvx::bringup::AgentFunction;
using kvx::bringup::call;
using kvx::bringup::kNoAgentLibrary;
using kvx::bringup::nextAgent;

}  // namespace

#define KVX_AGENT_CALL extern "C" __attribute__((visibility("default")))

KVX_AGENT_CALL int32_t start_session(const char* address, int32_t port) {
  const int32_t status = call(AgentFunction::kStartSession, static_cast<uint32_t>(port), 0, address, [&] {
    return nextAgent().startSession ? nextAgent().startSession(address, port) : kNoAgentLibrary;
  });
  std::lock_guard<std::mutex> lock(kvx::bringup::g_attemptMutex);
  kvx::bringup::g_lastAttempt = {address != nullptr ? address : "", port, status};
  return status;
}

KVX_AGENT_CALL int32_t destroy_session(void) {
  return call(AgentFunction::kDestroySession, 0, 0, nullptr,
              [] { return nextAgent().destroySession ? nextAgent().destroySession() : kNoAgentLibrary; });
}

KVX_AGENT_CALL int32_t get_sock_status(void) {
  return call(AgentFunction::kGetSockStatus, 0, 0, nullptr,
              [] { return nextAgent().getSockStatus ? nextAgent().getSockStatus() : kNoAgentLibrary; });
}

KVX_AGENT_CALL int32_t io_write(uint64_t address, uint64_t value, uint32_t size) {
  return call(AgentFunction::kIoWrite, address, value, nullptr, [&] {
    return nextAgent().ioWrite ? nextAgent().ioWrite(address, value, size) : kNoAgentLibrary;
  });
}

KVX_AGENT_CALL int32_t io_read(uint64_t address, uint8_t* buffer, uint32_t size) {
  return call(AgentFunction::kIoRead, address, size, nullptr, [&] {
    return nextAgent().ioRead ? nextAgent().ioRead(address, buffer, size) : kNoAgentLibrary;
  });
}

KVX_AGENT_CALL int32_t reg_write(const char* name, uint64_t value) {
  return call(AgentFunction::kRegWrite, value, 0, name,
              [&] { return nextAgent().regWrite ? nextAgent().regWrite(name, value) : kNoAgentLibrary; });
}

KVX_AGENT_CALL int32_t reg_read(const char* name, void* destination) {
  return call(AgentFunction::kRegRead, 0, 0, name,
              [&] { return nextAgent().regRead ? nextAgent().regRead(name, destination) : kNoAgentLibrary; });
}

KVX_AGENT_CALL int32_t ddr_reserve(uint64_t size, uint64_t* address) {
  return call(AgentFunction::kDdrReserve, size, 0, nullptr, [&] {
    return nextAgent().ddrReserve ? nextAgent().ddrReserve(size, address) : kNoAgentLibrary;
  });
}

KVX_AGENT_CALL int32_t ddr_unreserve(uint64_t address) {
  return call(AgentFunction::kDdrUnreserve, address, 0, nullptr,
              [&] { return nextAgent().ddrUnreserve ? nextAgent().ddrUnreserve(address) : kNoAgentLibrary; });
}

KVX_AGENT_CALL int32_t ddr_unreserve_all(void) {
  return call(AgentFunction::kDdrUnreserveAll, 0, 0, nullptr,
              [] { return nextAgent().ddrUnreserveAll ? nextAgent().ddrUnreserveAll() : kNoAgentLibrary; });
}
