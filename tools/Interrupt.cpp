#include "tools/Interrupt.h"

#include <csignal>

#include "tools/Failure.h"

namespace kvx::cli {
namespace {

volatile std::sig_atomic_t g_signal = 0;

void note(int signal) { g_signal = signal; }

}  // namespace

void Interrupt::install() {
  struct sigaction action {};
  action.sa_handler = note;
  sigemptyset(&action.sa_mask);
  // No SA_RESTART: a wait in progress returns, and the agent library's loops go on by their
  // deadline.
  ::sigaction(SIGINT, &action, nullptr);
  ::sigaction(SIGTERM, &action, nullptr);
}

void Interrupt::check() {
  if (g_signal != 0)
    throw Failure("stopped", g_signal == SIGINT ? "interrupted (Ctrl-C)" : "terminated by a signal");
}

}  // namespace kvx::cli
