#include "sim/Server.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

#include "sim/Connection.h"

extern char** environ;

namespace kvx::sim {

using boost::asio::ip::tcp;

namespace {

/// How long accepting pauses when the system is short of descriptors or memory.
constexpr std::chrono::milliseconds kAcceptPause(100);

/// Errors that a retry right away would only meet again, at full speed: they last until some
/// descriptor or buffer is freed.
bool isResourceShortage(const boost::system::error_code& error) {
  namespace errc = boost::system::errc;
  return error == errc::too_many_files_open || error == errc::too_many_files_open_in_system ||
         error == errc::no_buffer_space || error == errc::not_enough_memory;
}

/// The endpoint for a numeric address or host name: the resolver's first answer.
tcp::endpoint bindEndpoint(boost::asio::io_context& ioContext, const std::string& host, uint16_t port) {
  tcp::resolver resolver(ioContext);
  return *resolver.resolve(host, std::to_string(port), tcp::resolver::numeric_service).begin();
}

}  // namespace

Server::Server(SimOptions options)
    : m_options(std::move(options)),
      m_log(m_options.quiet),
      m_handler(m_options),
      m_sessions(m_options.exclusive),
      m_signals(m_ioContext, SIGINT, SIGTERM),
      m_acceptor(m_ioContext),
      m_acceptPause(m_ioContext),
      m_childExit(m_ioContext, SIGCHLD) {
  try {
    const tcp::endpoint endpoint = bindEndpoint(m_ioContext, m_options.bindAddress, m_options.port);
    m_acceptor.open(endpoint.protocol());
    // Lets a restarted simulator take its port back at once, past the old connections' TIME_WAIT.
    m_acceptor.set_option(tcp::acceptor::reuse_address(true));
    m_acceptor.bind(endpoint);
    m_acceptor.listen();
    // The command, if any, must not hold the port open after the server ends.
    ::fcntl(m_acceptor.native_handle(), F_SETFD, FD_CLOEXEC);
  } catch (const boost::system::system_error& error) {
    throw std::runtime_error("cannot listen on " + m_options.bindAddress + " port " +
                             std::to_string(m_options.port) + ": " + error.code().message());
  }
  awaitStop();
  doAccept();
}

int Server::run() {
  if (!m_options.command.empty()) {
    runCommand();
  } else {
    // Brackets keep an IPv6 address apart from the port; readers take the port after the last ':'.
    std::cout << "listening on " << listening().text() << std::endl;
  }
  m_ioContext.run();
  // The server is ending. A second SIGINT or SIGTERM, sent by whoever sent the first before it
  // saw this one act, stays pending from here on instead of killing the process once the signal
  // set is destroyed and the default action is back: the exit status stays the server's.
  sigset_t stopSignals;
  ::sigemptyset(&stopSignals);
  ::sigaddset(&stopSignals, SIGINT);
  ::sigaddset(&stopSignals, SIGTERM);
  ::pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
  return m_commandStatus;
}

void Server::runCommand() {
  const common::Endpoint where = listening();
  ::setenv("KVX_AGENT_SERVER", where.text().c_str(), 1);
  // Bare, as hosts pass it on as a server address.
  ::setenv("KVX_AGENT_ADDRESS", where.host.c_str(), 1);
  ::setenv("KVX_AGENT_PORT", std::to_string(where.port).c_str(), 1);
  std::vector<char*> argv;
  for (std::string& argument : m_options.command) argv.push_back(argument.data());
  argv.push_back(nullptr);
  const int error = ::posix_spawnp(&m_command, argv[0], nullptr, nullptr, argv.data(), environ);
  if (error != 0) {
    throw std::runtime_error("cannot run '" + m_options.command.front() + "': " + std::strerror(error));
  }
  awaitCommandExit();
}

void Server::awaitCommandExit() {
  m_childExit.async_wait([this](const boost::system::error_code& error, int) {
    if (error) return;
    int status = 0;
    if (::waitpid(m_command, &status, WNOHANG) != m_command) {
      awaitCommandExit();
      return;
    }
    m_command = -1;
    m_commandStatus = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
    m_acceptor.close();
    m_ioContext.stop();
  });
}

common::Endpoint Server::listening() const {
  const tcp::endpoint local = m_acceptor.local_endpoint();
  return common::Endpoint{local.address().to_string(), local.port()};
}

void Server::doAccept() {
  m_acceptor.async_accept([this](const boost::system::error_code& error, tcp::socket socket) {
    if (!m_acceptor.is_open()) return;
    if (isResourceShortage(error)) {
      pauseAccepting(error);
      return;
    }
    if (error) {
      // The failure concerns one would-be client, such as one that gave up while queued.
      m_log.line("accept failed: ", error.message());
    } else {
      if (m_acceptPaused) {
        m_acceptPaused = false;
        m_log.line("accepting connections again");
      }
      std::make_shared<Connection>(std::move(socket), m_handler, m_sessions, m_options, m_log)->start();
    }
    doAccept();
  });
}

void Server::pauseAccepting(const boost::system::error_code& error) {
  // One line per shortage, not one per retry: the retries of a long one would flood the log.
  if (!m_acceptPaused) {
    m_acceptPaused = true;
    m_log.line("accept failed: ", error.message(), "; pausing until descriptors free up");
  }
  // Clients already connected go on being served meanwhile; closing theirs frees descriptors.
  m_acceptPause.expires_after(kAcceptPause);
  m_acceptPause.async_wait([this](const boost::system::error_code& waitError) {
    if (waitError || !m_acceptor.is_open()) return;
    doAccept();
  });
}

void Server::awaitStop() {
  m_signals.async_wait([this](const boost::system::error_code& error, int signal) {
    if (error) return;
    if (m_command > 0) {
      // The command decides when it ends; the server ends with it.
      ::kill(m_command, signal);
      awaitStop();
      return;
    }
    m_log.line("stopping on signal ", signal);
    m_acceptor.close();
    // Connections still open are closed as their handlers are destroyed with the io_context.
    m_ioContext.stop();
  });
}

}  // namespace kvx::sim
