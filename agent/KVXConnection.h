// One agent endpoint (server address and port) and whether this descriptor opened the agent
// session and has not yet seen it closed or lost. A copyable value: copies carry the flag, so
// several descriptors may say "active" while the agent library holds one session. It is the only
// code that opens, tests and closes that session. Not synchronised: the owner serialises use.
#pragma once

#include <string>

#include "vorn/Visibility.h"

namespace vorn {

class VORN_API KVXConnection {
 public:
  /// No endpoint: the empty address, port -1, inactive.
  KVXConnection();
  /// The given endpoint, inactive. Makes no agent call.
  KVXConnection(std::string address, int port);

  /// Asks the agent library whether the session's connection is up; when it is not, the flag is
  /// cleared. Returns the flag.
  bool isActive();
  /// Opens a session for this endpoint unless isActive() already holds. Returns the new flag.
  bool init();
  /// Closes the agent session, whatever the flag says, and clears the flag.
  void destroy();

  std::string getTargetAddress() const;
  int getTargetPort() const;

  /// Stores a new address; when this descriptor is active and the address changes, the session
  /// is closed first. Asks isActive() on every call.
  void setTargetAddress(std::string address);
  /// Stores a new port; when this descriptor is active and the port changes, the session is
  /// closed first. Asks isActive() on every call.
  void setTargetPort(int port);

  /// Same address and port; the flag takes no part.
  bool operator==(const KVXConnection& other) const;

 private:
  std::string m_targetAddress;
  int m_targetPort;
  bool m_active;
};

}  // namespace vorn
