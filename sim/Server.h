// The simulated target agent's server: listens on one TCP endpoint, accepts any number of
// clients and serves them all, on the calling thread, against one shared target, until SIGINT or
// SIGTERM arrives. Out of descriptors or memory it stops accepting for a while and keeps serving
// the clients it has.
#pragma once

#include <sys/types.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/steady_timer.hpp>

#include "common/Endpoint.h"
#include "sim/Log.h"
#include "sim/RequestHandler.h"
#include "sim/Sessions.h"
#include "sim/SimOptions.h"

namespace kvx::sim {

class Server {
 public:
  /// Resolves the bind address (a host name gives its first address), binds and listens. Throws
  /// std::exception when that is impossible: std::runtime_error naming the address for one in use
  /// or a name that does not resolve, std::invalid_argument for a bad reservation region.
  explicit Server(SimOptions options);

  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  /// Prints "listening on ADDRESS:PORT" on stdout and serves until a signal stops the server;
  /// returns 0. With a command, runs it instead of printing, with KVX_AGENT_SERVER (ADDRESS:PORT),
  /// KVX_AGENT_ADDRESS and KVX_AGENT_PORT in its environment, serves until it ends, passing SIGINT and
  /// SIGTERM on to it, and returns its exit status (128 + the signal number if a signal ended it). Throws
  /// std::runtime_error when the command cannot be started.
  int run();

 private:
  /// Where the server listens, as its clients name it.
  common::Endpoint listening() const;
  void doAccept();
  /// After an accept failed for want of descriptors or memory: logs that once per shortage and
  /// accepts again after a pause rather than at once.
  void pauseAccepting(const boost::system::error_code& error);
  void awaitStop();
  /// Starts m_options.command and stops the server when it ends.
  void runCommand();
  void awaitCommandExit();

  SimOptions m_options;
  Log m_log;
  RequestHandler m_handler;
  Sessions m_sessions;
  boost::asio::io_context m_ioContext;
  boost::asio::signal_set m_signals;
  boost::asio::ip::tcp::acceptor m_acceptor;
  boost::asio::steady_timer m_acceptPause;
  bool m_acceptPaused = false;  ///< an accept has failed for want of resources, none succeeded since
  boost::asio::signal_set m_childExit;
  pid_t m_command = -1;  ///< the command's process while it runs
  int m_commandStatus = 0;
};

}  // namespace kvx::sim
