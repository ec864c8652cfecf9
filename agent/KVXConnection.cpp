#include "agent/KVXConnection.h"

#include <utility>

#include "agent/TargetAgent.h"

namespace vorn {

KVXConnection::KVXConnection() : m_targetPort(-1), m_active(false) {}

KVXConnection::KVXConnection(std::string address, int port)
    : m_targetAddress(std::move(address)), m_targetPort(port), m_active(false) {}

bool KVXConnection::isActive() {
  if (get_sock_status() != 0) {
    m_active = false;
  }
  return m_active;
}

bool KVXConnection::init() {
  if (isActive()) {
    return true;
  }
  m_active = start_session(m_targetAddress.c_str(), m_targetPort) == 0;
  return m_active;
}

void KVXConnection::destroy() {
  destroy_session();
  m_active = false;
}

std::string KVXConnection::getTargetAddress() const { return m_targetAddress; }

int KVXConnection::getTargetPort() const { return m_targetPort; }

void KVXConnection::setTargetAddress(std::string address) {
  if (isActive() && address != m_targetAddress) {
    destroy();
  }
  m_targetAddress = std::move(address);
}

void KVXConnection::setTargetPort(int port) {
  if (isActive() && port != m_targetPort) {
    destroy();
  }
  m_targetPort = port;
}

bool KVXConnection::operator==(const KVXConnection& other) const {
  return m_targetPort == other.m_targetPort && m_targetAddress == other.m_targetAddress;
}

}  // namespace vorn
