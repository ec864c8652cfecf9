#include "tools/Workers.h"

#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <memory>

#include <boost/asio/io_context.hpp>
#include <boost/process.hpp>
#include <boost/process/extend.hpp>
#include <nlohmann/json.hpp>

#include "common/Programs.h"
#include "tools/Failure.h"
#include "tools/Interrupt.h"
#include "tools/Numbers.h"
#include "tools/Progress.h"
#include "tools/Session.h"

namespace bp = boost::process;

namespace kvx::cli {
namespace {

/// How often the event loop looks up from the pipes for a Ctrl-C.
constexpr std::chrono::milliseconds kInterruptCheck(100);

/// One worker process: reads its stdout into the sink and its stderr for progress and failure.
class Worker {
 public:
  Worker(boost::asio::io_context& io, size_t index, Progress& progress, const Workers::Sink& sink)
      : m_out(io), m_err(io), m_index(index), m_progress(progress), m_sink(sink) {}

  void start(boost::asio::io_context& io, const std::vector<std::string>& arguments) {
    // Workers do not outlive kvx-ta, even one killed outright.
    m_child = bp::child(common::thisProgram(), bp::args(arguments), bp::std_out > m_out, bp::std_err > m_err,
                        bp::std_in < bp::null, io,
                        bp::extend::on_exec_setup([](auto&) { ::prctl(PR_SET_PDEATHSIG, SIGTERM); }));
    readOut();
    readErr();
  }

  void stop() {
    std::error_code ignored;
    if (m_child.valid() && m_child.running(ignored)) m_child.terminate(ignored);
  }

  /// Waits for the process; its exit status.
  int finish() {
    std::error_code ignored;
    if (m_child.valid()) m_child.wait(ignored);
    return m_child.valid() ? m_child.exit_code() : -1;
  }

  bool failed() const { return !m_attempted.empty(); }
  const std::string& attempted() const { return m_attempted; }
  const std::string& reason() const { return m_reason; }

 private:
  void readOut() {
    m_out.async_read_some(boost::asio::buffer(m_outBuffer),
                          [this](const boost::system::error_code& error, size_t n) {
                            if (n > 0) m_sink(m_index, m_outBuffer.data(), n);
                            if (!error) readOut();
                          });
  }

  void readErr() {
    m_err.async_read_some(
        boost::asio::buffer(m_errBuffer), [this](const boost::system::error_code& error, size_t n) {
          m_errLine.append(m_errBuffer.data(), n);
          for (size_t end; (end = m_errLine.find('\n')) != std::string::npos;) {
            // A worker speaks JSON on stderr: {"done": N} as it goes, {"error": ..., "reason": ...}
            // when it fails.
            const auto line = nlohmann::json::parse(m_errLine.substr(0, end), nullptr, false);
            m_errLine.erase(0, end + 1);
            if (line.is_object() && line.contains("done")) m_progress.advance(line["done"].get<uint64_t>());
            if (line.is_object() && line.contains("error")) {
              m_attempted = line["error"].get<std::string>();
              m_reason = line.value("reason", "");
            }
          }
          if (!error) readErr();
        });
  }

  bp::async_pipe m_out;
  bp::async_pipe m_err;
  bp::child m_child;
  size_t m_index;
  Progress& m_progress;
  const Workers::Sink& m_sink;
  std::array<uint8_t, 64 * 1024> m_outBuffer{};
  std::array<char, 4096> m_errBuffer{};
  std::string m_errLine;
  std::string m_attempted;
  std::string m_reason;
};

}  // namespace

std::vector<Workers::Part> Workers::split(uint64_t address, uint64_t length, unsigned jobs) {
  std::vector<Part> parts;
  const uint64_t share = length / (jobs == 0 ? 1 : jobs);
  uint64_t start = address;
  const uint64_t end = address + length;  // may be 0: the range then reaches 2^64
  for (unsigned i = 1; i < jobs && share >= kMaxAccessBytes; ++i) {
    // Each boundary on an 8-byte boundary of the target, so that every part's accesses are
    // aligned as one transfer's would be.
    const uint64_t boundary = (address + i * share) / kMaxAccessBytes * kMaxAccessBytes;
    if (boundary <= start) continue;
    parts.push_back({start, boundary - start});
    start = boundary;
  }
  if (length != 0) parts.push_back({start, end - start});
  return parts;
}

void Workers::run(Session& session, Progress& progress, const std::vector<Part>& parts,
                  const std::function<std::vector<std::string>(const Part&)>& command, const Sink& sink) {
  boost::asio::io_context io;
  std::vector<std::unique_ptr<Worker>> workers;
  const std::vector<std::string> global = session.workerOptions();
  struct StopAll {
    std::vector<std::unique_ptr<Worker>>& workers;
    ~StopAll() {
      for (auto& worker : workers) worker->stop();
    }
  } stopOnTheWayOut{workers};

  for (size_t index = 0; index < parts.size(); ++index) {
    std::vector<std::string> arguments = global;
    const std::vector<std::string> words = command(parts[index]);
    arguments.insert(arguments.end(), words.begin(), words.end());
    workers.push_back(std::make_unique<Worker>(io, index, progress, sink));
    workers.back()->start(io, arguments);
  }
  // The loop ends when every pipe is at its end and every worker has exited; a failure stops
  // the others at once.
  while (!io.stopped()) {
    io.run_for(kInterruptCheck);
    Interrupt::check();
    for (const auto& worker : workers) {
      if (worker->failed()) {
        for (auto& other : workers) other->stop();
      }
    }
  }
  std::vector<int> statuses;
  for (auto& worker : workers) statuses.push_back(worker->finish());
  // The first worker that reported a failure, rather than one stopped because of it.
  for (int pass = 0; pass < 2; ++pass) {
    for (size_t index = 0; index < parts.size(); ++index) {
      const Worker& worker = *workers[index];
      const std::string range =
          hexAddress(parts[index].address) + "-" + hexAddress(parts[index].address + parts[index].length - 1);
      if (pass == 0 && worker.failed()) {
        throw Failure(worker.attempted() + " (the worker for " + range + ")", worker.reason());
      }
      if (pass == 1 && statuses[index] != 0) {
        throw Failure("the worker for " + range + " failed",
                      "it ended with status " + std::to_string(statuses[index]));
      }
    }
  }
}

}  // namespace kvx::cli
