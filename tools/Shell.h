// `kvx-ta shell`: commands typed one a line and run in the run's one session, where a failed
// command is reported and the shell goes on. On a terminal it has a prompt, line editing, a
// history kept in ~/.kvx_ta_history and Tab completion; otherwise it reads its lines from stdin
// as a script does. Single-threaded; one shell runs at a time.
#pragma once

namespace kvx::cli {

class Session;

/// Runs the shell on stdin until `quit`, `exit` or the end of the input (Ctrl-D). A line runs
/// what a script's line runs, and `script FILE` too. Ctrl-C stops the command in progress, or
/// abandons the line being typed, and the shell goes on; SIGTERM ends it with Error
/// (kInterrupted). Without a terminal, once the input has ended, throws an Error of the first
/// failure's kind when any command failed; on a terminal, leaving is always a success.
void runShell(Session& session);

/// Whether runShell is running, and reading stdin: a script cannot read it then.
bool shellRunning();

}  // namespace kvx::cli
