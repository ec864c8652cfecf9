// The GNU build-id of the libtarget.agent.so stand-in that was built with this library, as
// lower-case hex: how the bring-up library recognises, among the agent libraries that may sit
// beside the plug-in, the one whose statuses it knows. Generated at build time.
#pragma once

namespace kvx::bringup {

extern const char* const kStandInBuildId;

}  // namespace kvx::bringup
