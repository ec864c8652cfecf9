#include "tools/Interrupt.h"

#include <csignal>

#include "bringup/Error.h"
#include "bringup/transfer/Transfer.h"

namespace kvx::cli::interrupt {
namespace {

// One flag each, so that dismissing a Ctrl-C cannot lose a SIGTERM that arrives meanwhile.
volatile std::sig_atomic_t g_ctrlC = 0;
volatile std::sig_atomic_t g_terminate = 0;

void note(int signal) {
  if (signal == SIGINT) {
    g_ctrlC = 1;
  } else {
    g_terminate = 1;
  }
}

}  // namespace

void install() {
  struct sigaction action {};
  action.sa_handler = note;
  sigemptyset(&action.sa_mask);
  // No SA_RESTART: a wait in progress returns, and the agent library's loops go on by their
  // deadline.
  ::sigaction(SIGINT, &action, nullptr);
  ::sigaction(SIGTERM, &action, nullptr);
}

bool pending() { return g_ctrlC != 0 || g_terminate != 0; }

bool terminating() { return g_terminate != 0; }

bool dismissCtrlC() {
  const bool had = g_ctrlC != 0;
  g_ctrlC = 0;
  return had;
}

void check() {
  if (g_terminate != 0) {
    throw bringup::Error(bringup::Error::Kind::kInterrupted, "stopped", "terminated by a signal");
  }
  if (g_ctrlC != 0)
    throw bringup::Error(bringup::Error::Kind::kInterrupted, "stopped", "interrupted (Ctrl-C)");
}

void sleep(std::chrono::milliseconds duration) { bringup::sleepFor(duration, &check); }

}  // namespace kvx::cli::interrupt
