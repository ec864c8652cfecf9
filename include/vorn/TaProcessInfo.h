// What the host tells a client when it notifies it. Plug-ins pass these values through and
// interpret none of them.
#pragma once

#include <cstdint>
#include <string>

#include "vorn/Visibility.h"

namespace vorn {

enum _NOTIFICATION_TYPE : int32_t {
  NOTIFICATION_NONE = 0,
  NOTIFICATION_PROCESS_EVENT = 1,
  NOTIFICATION_CONFIGURATION_CHANGED = 2,
  NOTIFICATION_SHUTDOWN = 3,
};

enum _Process_Event : int32_t {
  PROCESS_EVENT_NONE = 0,
  PROCESS_EVENT_CREATED = 1,
  PROCESS_EVENT_STARTED = 2,
  PROCESS_EVENT_STOPPED = 3,
  PROCESS_EVENT_EXITED = 4,
};

enum _Event_Reason : int32_t {
  EVENT_REASON_NONE = 0,
  EVENT_REASON_USER = 1,
  EVENT_REASON_BREAKPOINT = 2,
  EVENT_REASON_ERROR = 3,
};

/// The process a notification is about.
struct VORN_API TaProcessInfo {
  uint32_t processId = 0;
  std::string name;
};

}  // namespace vorn
