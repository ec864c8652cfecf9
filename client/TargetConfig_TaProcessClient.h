// The plug-in's client: carries an identifier and a launch name, and keeps the three values of
// the last notification the host delivered. Created and owned by the host. Takes no lock: the
// host serialises calls on one client.
#pragma once

#include <string>

#include "vorn/TaClient.h"
#include "vorn/TaProcessInfo.h"
#include "vorn/Visibility.h"

namespace vorn {

class VORN_API TargetConfig_TaProcessClient : public TaClient {
 public:
  /// A client with a fresh identifier from Plugin::new_uuid() and an empty launch name.
  TargetConfig_TaProcessClient();
  /// A client with exactly the given identifier (an empty one included) and launch name.
  TargetConfig_TaProcessClient(std::string uuid, std::string launchName, _NOTIFICATION_TYPE notificationType);

  /// Records the notification, replacing the previous one; `info` is not touched. Returns true.
  bool doCallback(_NOTIFICATION_TYPE type, _Process_Event event, _Event_Reason reason,
                  TaProcessInfo& info) override;

 protected:
  // The "none" enumerators until given: the default constructor sets no notification type,
  // and there is no last notification before the first doCallback.
  _NOTIFICATION_TYPE m_notificationType = NOTIFICATION_NONE;
  _NOTIFICATION_TYPE m_lastNotificationType = NOTIFICATION_NONE;
  _Process_Event m_lastProcessEvent = PROCESS_EVENT_NONE;
  _Event_Reason m_lastEventReason = EVENT_REASON_NONE;
};

}  // namespace vorn
