#include "sim/Server.h"

#include <csignal>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

#include "sim/Connection.h"

namespace kvx::sim {

using boost::asio::ip::tcp;

Server::Server(SimOptions options)
    : m_options(std::move(options)),
      m_log(m_options.quiet),
      m_handler(m_options),
      m_signals(m_ioContext, SIGINT, SIGTERM),
      m_acceptor(m_ioContext) {
  try {
    const tcp::endpoint endpoint(boost::asio::ip::make_address(m_options.bindAddress), m_options.port);
    m_acceptor.open(endpoint.protocol());
    // Lets a restarted simulator take its port back at once, past the old connections' TIME_WAIT.
    m_acceptor.set_option(tcp::acceptor::reuse_address(true));
    m_acceptor.bind(endpoint);
    m_acceptor.listen();
  } catch (const boost::system::system_error& error) {
    throw std::runtime_error("cannot listen on " + m_options.bindAddress + " port " +
                             std::to_string(m_options.port) + ": " + error.code().message());
  }
  awaitStop();
  doAccept();
}

void Server::run() {
  const tcp::endpoint local = m_acceptor.local_endpoint();
  const boost::asio::ip::address address = local.address();
  // Brackets keep an IPv6 address apart from the port; readers take the port after the last ':'.
  std::cout << "listening on " << (address.is_v6() ? "[" : "") << address.to_string()
            << (address.is_v6() ? "]" : "") << ':' << local.port() << std::endl;
  m_ioContext.run();
}

void Server::doAccept() {
  m_acceptor.async_accept([this](const boost::system::error_code& error, tcp::socket socket) {
    if (!m_acceptor.is_open()) return;
    if (!error) {
      std::make_shared<Connection>(std::move(socket), m_handler, m_options, m_log)->start();
    } else {
      m_log.line("accept failed: ", error.message());
    }
    doAccept();
  });
}

void Server::awaitStop() {
  m_signals.async_wait([this](const boost::system::error_code& error, int signal) {
    if (error) return;
    m_log.line("stopping on signal ", signal);
    m_acceptor.close();
    // Connections still open are closed as their handlers are destroyed with the io_context.
    m_ioContext.stop();
  });
}

}  // namespace kvx::sim
