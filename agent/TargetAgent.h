// The target agent client library, as the plug-in calls it: ten plain functions with C linkage.
// The library holds at most one agent session for the whole host process; every call other than
// start_session acts on that session. Each returns 0 on success and any other value on failure;
// the plug-in does not tell failures apart.
#pragma once

#include <cstdint>

extern "C" {

/// Opens a session with the agent at `address` (text) and `port`, replacing any open session.
int32_t start_session(const char* address, int32_t port);
/// Closes the open session; harmless when none is open.
int32_t destroy_session(void);
/// 0 while the session's connection is up.
int32_t get_sock_status(void);

/// Writes the first `size` bytes (0 to 8) of `value`, in memory order, at `address`.
int32_t io_write(uint64_t address, uint64_t value, uint32_t size);
/// Reads `size` bytes (0 to 8) at `address` into the first bytes of the 8-byte `buffer`.
int32_t io_read(uint64_t address, uint8_t* buffer, uint32_t size);

/// Writes `value` to the register called `name`; refused when `value` has a bit set above the
/// register's width.
int32_t reg_write(const char* name, uint64_t value);
/// Stores the value of the register called `name` at `destination`: exactly the register's
/// width, at most 8 bytes, least significant byte first. `destination` must hold that many bytes.
int32_t reg_read(const char* name, void* destination);

/// Reserves a block of at least `size` bytes of target memory and stores its address.
int32_t ddr_reserve(uint64_t size, uint64_t* address);
/// Releases the reserved block at `address`.
int32_t ddr_unreserve(uint64_t address);
/// Releases every reserved block.
int32_t ddr_unreserve_all(void);

}  // extern "C"
