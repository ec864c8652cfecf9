// Helpers for the reliability tests: processes for a simulated agent through the manager, and a
// watchdog that runs a host call on another thread so that a call which never returns fails the
// test instead of hanging it.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>
#include <thread>

#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>

#include "manager/TaProcessManager.h"
#include "vorn/ConfigBlock.h"
#include "vorn/Exception.h"
#include "vorn/ExtAddress.h"
#include "vorn/TaProcess.h"

namespace vorn::test {

/// A block that the manager serves, naming (`address`, `port`).
inline boost::shared_ptr<ConfigBlock> servedConfig(const std::string& address, uint32_t port) {
  auto config = boost::make_shared<ConfigBlock>();
  config->setAttribute("TaType", boost::make_shared<StringAttribute>("KVX"));
  config->setAttribute("ServerAddress", boost::make_shared<StringAttribute>(address));
  config->setAttribute("ServerPort", boost::make_shared<UInt32Attribute>(port));
  return config;
}

/// A process for (`address`, `port`), obtained the way a host obtains one.
inline boost::shared_ptr<TaProcess> processFor(const std::string& address, uint32_t port) {
  return TaProcessManager::getInstance().getTaProcess("core", servedConfig(address, port));
}

inline ExtAddress at(uint64_t address) {
  ExtAddress result;
  result.memorySpace = "logger";
  result.address = address;
  return result;
}

/// How a watched call ended.
struct CallOutcome {
  bool returned = false;    ///< within the limit, without help from `release`
  bool threwVorn = false;   ///< ended with a vorn::Exception
  std::string message;      ///< its message, or what() of any other exception
  std::string file;         ///< its file
  bool threwOther = false;  ///< ended with an exception of another type
  std::chrono::milliseconds elapsed{0};
};

/// For failure messages.
inline std::ostream& operator<<(std::ostream& out, const CallOutcome& outcome) {
  if (!outcome.returned) return out << "the call did not return in time";
  out << "returned after " << outcome.elapsed.count() << " ms";
  if (outcome.threwVorn) out << " with vorn::Exception " << outcome.file << ": " << outcome.message;
  if (outcome.threwOther) out << " with another exception: " << outcome.message;
  return out;
}

/// Runs `call` on a thread of its own and waits at most `limit` for it. If it has not returned
/// by then, the outcome says returned == false; `release` is invoked (e.g. to kill the agent the
/// call waits for) so that the thread can be joined. A call that does not return even then is
/// left running detached, so `call` must own everything it touches (capture by value).
inline CallOutcome watch(std::function<void()> call, std::chrono::milliseconds limit,
                         const std::function<void()>& release = {}) {
  struct State {
    std::mutex mutex;
    std::condition_variable done;
    bool finished = false;
    CallOutcome outcome;
  };
  auto state = std::make_shared<State>();
  const auto start = std::chrono::steady_clock::now();
  std::thread thread([state, call = std::move(call), start] {
    CallOutcome outcome;
    try {
      call();
    } catch (const Exception& e) {
      outcome.threwVorn = true;
      outcome.message = e.getMessage();
      outcome.file = e.getFile();
    } catch (const std::exception& e) {
      outcome.threwOther = true;
      outcome.message = e.what();
    }
    outcome.returned = true;
    outcome.elapsed =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
    std::lock_guard<std::mutex> guard(state->mutex);
    state->outcome = outcome;
    state->finished = true;
    state->done.notify_all();
  });
  std::unique_lock<std::mutex> lock(state->mutex);
  const bool inTime = state->done.wait_for(lock, limit, [&] { return state->finished; });
  if (!inTime && release) {
    lock.unlock();
    release();
    lock.lock();
    state->done.wait_for(lock, limit, [&] { return state->finished; });
  }
  if (!state->finished) {
    thread.detach();
    return CallOutcome();
  }
  CallOutcome outcome = state->outcome;
  outcome.returned = inTime;
  lock.unlock();
  thread.join();
  return outcome;
}

}  // namespace vorn::test
