#include "tools/Interrupt.h"

#include <csignal>

#include "bringup/Error.h"

namespace kvx::cli::interrupt {
namespace {

volatile std::sig_atomic_t g_signal = 0;

void note(int signal) { g_signal = signal; }

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

bool pending() { return g_signal != 0; }

void check() {
  if (g_signal != 0) {
    throw bringup::Error(bringup::Error::Kind::kInterrupted, "stopped",
                         g_signal == SIGINT ? "interrupted (Ctrl-C)" : "terminated by a signal");
  }
}

}  // namespace kvx::cli::interrupt
