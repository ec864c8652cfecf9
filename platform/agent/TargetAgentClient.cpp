// Placeholder agent client: every call fails until the TCP client lands.

#include "agent/TargetAgent.h"

#define TA_AGENT_API extern "C" __attribute__((visibility("default")))

TA_AGENT_API int32_t start_session(const char*, int32_t) { return -1; }
TA_AGENT_API int32_t destroy_session(void) { return 0; }
TA_AGENT_API int32_t get_sock_status(void) { return -1; }
TA_AGENT_API int32_t io_write(uint64_t, uint64_t, uint32_t) { return -1; }
TA_AGENT_API int32_t io_read(uint64_t, uint8_t*, uint32_t) { return -1; }
TA_AGENT_API int32_t reg_write(const char*, uint64_t) { return -1; }
TA_AGENT_API int32_t reg_read(const char*, void*) { return -1; }
TA_AGENT_API int32_t ddr_reserve(uint64_t, uint64_t*) { return -1; }
TA_AGENT_API int32_t ddr_unreserve(uint64_t) { return -1; }
TA_AGENT_API int32_t ddr_unreserve_all(void) { return -1; }
