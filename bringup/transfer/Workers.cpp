#include "bringup/transfer/Workers.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>

#include <array>
#include <chrono>
#include <memory>
#include <optional>

#include <boost/asio/io_context.hpp>
#include <boost/process.hpp>
#include <boost/process/extend.hpp>

#include "bringup/Error.h"
#include "bringup/transfer/Transfer.h"
#include "bringup/transfer/WorkerMessages.h"

namespace bp = boost::process;

namespace kvx::bringup {
namespace {

/// How often the event loop looks up from the pipes for the checkpoint.
constexpr std::chrono::milliseconds kCheckpointInterval(50);

/// One worker process: reads its stdout into the output and its stderr for progress and failure.
class Worker {
 public:
  Worker(boost::asio::io_context& io, size_t index, Transfer& transfer, const WorkerOutput& output)
      : m_out(io), m_err(io), m_index(index), m_transfer(transfer), m_output(output) {}

  void start(boost::asio::io_context& io, const std::string& program,
             const std::vector<std::string>& arguments) {
    // Workers do not outlive the process that runs them, even one killed outright.
    std::error_code error;
    m_child = bp::child(program, bp::args(arguments), bp::std_out > m_out, bp::std_err > m_err,
                        bp::std_in < bp::null, io, error,
                        bp::extend::on_exec_setup([](auto&) { ::prctl(PR_SET_PDEATHSIG, SIGTERM); }));
    if (error) {
      throw Error(Error::Kind::kFile, "cannot start the worker '" + program + "'", error.message());
    }
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

  const std::optional<Error>& failure() const { return m_failure; }

 private:
  void readOut() {
    m_out.async_read_some(boost::asio::buffer(m_outBuffer),
                          [this](const boost::system::error_code& error, size_t n) {
                            if (n > 0) m_output(m_index, m_outBuffer.data(), n);
                            if (!error) readOut();
                          });
  }

  void readErr() {
    m_err.async_read_some(boost::asio::buffer(m_errBuffer),
                          [this](const boost::system::error_code& error, size_t n) {
                            m_errLine.append(m_errBuffer.data(), n);
                            for (size_t end; (end = m_errLine.find('\n')) != std::string::npos;) {
                              WorkerMessage message = parseWorkerMessage(m_errLine.substr(0, end));
                              m_errLine.erase(0, end + 1);
                              if (message.progress) m_transfer.advance(*message.progress);
                              if (message.failure && !m_failure) m_failure = std::move(message.failure);
                            }
                            if (!error) readErr();
                          });
  }

  bp::async_pipe m_out;
  bp::async_pipe m_err;
  bp::child m_child;
  size_t m_index;
  Transfer& m_transfer;
  const WorkerOutput& m_output;
  std::array<uint8_t, 64 * 1024> m_outBuffer{};
  std::array<char, 4096> m_errBuffer{};
  std::string m_errLine;
  std::optional<Error> m_failure;
};

/// Whether `host` names this machine: a loopback address or "localhost".
bool isLoopback(const std::string& host) {
  in_addr v4{};
  in6_addr v6{};
  if (::inet_pton(AF_INET, host.c_str(), &v4) == 1) return (ntohl(v4.s_addr) >> 24) == 127;
  if (::inet_pton(AF_INET6, host.c_str(), &v6) == 1) return IN6_IS_ADDR_LOOPBACK(&v6);
  return host == "localhost";
}

}  // namespace

unsigned defaultJobs(const std::string& host, uint64_t length) {
  // Measured (docs/performance.md): against an agent 200 us away four workers move 3.1 times as
  // much as one, eight 5.9 times; on loopback extra workers share the CPUs with the agent and
  // gain little or lose. A short transfer is not worth starting workers for.
  constexpr unsigned kRemoteJobs = 4;
  constexpr uint64_t kParallelFrom = 64 * 1024;
  return length >= kParallelFrom && !isLoopback(host) ? kRemoteJobs : 1;
}

void runWorkers(Transfer& transfer, const std::vector<Range>& parts,
                const std::function<std::vector<std::string>(const Range&)>& command,
                const WorkerOutput& output) {
  const WorkerLaunch& launch = transfer.options().workers.value();
  boost::asio::io_context io;
  std::vector<std::unique_ptr<Worker>> workers;
  struct StopAll {
    std::vector<std::unique_ptr<Worker>>& workers;
    ~StopAll() {
      for (auto& worker : workers) worker->stop();
    }
  } stopOnTheWayOut{workers};

  for (size_t index = 0; index < parts.size(); ++index) {
    std::vector<std::string> arguments = launch.options;
    const std::vector<std::string> words = command(parts[index]);
    arguments.insert(arguments.end(), words.begin(), words.end());
    workers.push_back(std::make_unique<Worker>(io, index, transfer, output));
    workers.back()->start(io, launch.program, arguments);
  }
  // The loop ends when every pipe is at its end and every worker has exited; a failure stops
  // the others at once.
  while (!io.stopped()) {
    io.run_for(kCheckpointInterval);
    transfer.checkpoint();
    for (const auto& worker : workers) {
      if (worker->failure()) {
        for (auto& other : workers) other->stop();
      }
    }
  }
  std::vector<int> statuses;
  for (auto& worker : workers) statuses.push_back(worker->finish());
  // The first worker that reported a failure, rather than one stopped because of it.
  for (size_t index = 0; index < parts.size(); ++index) {
    if (workers[index]->failure()) {
      throw workers[index]->failure()->suffixed(" (the worker for " + parts[index].text() + ")");
    }
  }
  for (size_t index = 0; index < parts.size(); ++index) {
    if (statuses[index] != 0) {
      throw Error(Error::Kind::kTarget, "the worker for " + parts[index].text() + " failed",
                  "it ended with status " + std::to_string(statuses[index]));
    }
  }
}

}  // namespace kvx::bringup
