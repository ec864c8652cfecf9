#include "client/TargetConfig_TaProcessClient.h"

#include <utility>

#include "vorn/Plugin.h"

namespace vorn {

TargetConfig_TaProcessClient::TargetConfig_TaProcessClient() { m_uuid = Plugin::new_uuid(); }

TargetConfig_TaProcessClient::TargetConfig_TaProcessClient(std::string uuid, std::string launchName,
                                                           _NOTIFICATION_TYPE notificationType) {
  m_uuid = std::move(uuid);
  m_launchName = std::move(launchName);
  m_notificationType = notificationType;
}

bool TargetConfig_TaProcessClient::doCallback(_NOTIFICATION_TYPE type, _Process_Event event,
                                              _Event_Reason reason, TaProcessInfo& /*info*/) {
  m_lastNotificationType = type;
  m_lastProcessEvent = event;
  m_lastEventReason = reason;
  return true;
}

}  // namespace vorn
