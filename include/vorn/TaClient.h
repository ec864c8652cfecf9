// What the host hands in when it registers interest in a configuration: an identifier, a launch
// name, and a callback for notifications. Created and owned by the host (boost::shared_ptr);
// takes no lock, so the caller serialises calls on one client.
#pragma once

#include <string>

#include "vorn/TaProcessInfo.h"
#include "vorn/Visibility.h"

namespace vorn {

class VORN_API TaClient {
 public:
  virtual bool doCallback(_NOTIFICATION_TYPE type, _Process_Event event, _Event_Reason reason,
                          TaProcessInfo& info) = 0;

  /// A copy of the identifier.
  virtual std::string getUUID() { return m_uuid; }

  /// The launch name; the reference stays valid as long as the client lives.
  virtual const std::string& getLaunchName() const { return m_launchName; }

  virtual ~TaClient() {}

 protected:
  std::string m_uuid;
  std::string m_launchName;
};

}  // namespace vorn
