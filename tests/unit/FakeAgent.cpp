#include "tests/unit/FakeAgent.h"

#include <cstring>
#include <thread>

#include "agent/TargetAgent.h"

namespace kvx::test {

size_t g_callsAtStartup = 0;

FakeAgent& FakeAgent::instance() {
  static FakeAgent agent;
  return agent;
}

void FakeAgent::reset() {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_calls.clear();
  m_script = Script();
  m_session = Session();
}

void FakeAgent::clearCalls() {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_calls.clear();
}

std::vector<Call> FakeAgent::calls() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_calls;
}

std::vector<Fn> FakeAgent::functions() const {
  std::vector<Fn> result;
  for (const Call& call : calls()) result.push_back(call.fn);
  return result;
}

Session FakeAgent::session() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_session;
}

void FakeAgent::setStatus(Fn fn, int32_t status) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_script.statuses[fn] = status;
}

void FakeAgent::setReadBytes(const std::array<uint8_t, 8>& bytes) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_script.readBytes = bytes;
}

void FakeAgent::setReservedAddress(uint64_t address) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_script.reservedAddress = address;
}

std::pair<int32_t, Script> FakeAgent::record(Call call) {
  // Lets other threads run between a caller's calls, so that races in the plug-in's use of the
  // one session show up in the concurrency test.
  std::this_thread::yield();
  std::lock_guard<std::mutex> lock(m_mutex);
  call.session = m_session;
  const auto scripted = m_script.statuses.find(call.fn);
  int32_t status = 0;
  if (scripted != m_script.statuses.end()) {
    status = scripted->second;
  } else if (call.fn != Fn::StartSession && call.fn != Fn::DestroySession) {
    status = m_session.open ? 0 : -1;
  }
  if (call.fn == Fn::StartSession) m_session = Session{status == 0, call.text, call.port};
  if (call.fn == Fn::DestroySession) m_session = Session();
  m_calls.push_back(std::move(call));
  return {status, m_script};
}

}  // namespace kvx::test

using kvx::test::Call;
using kvx::test::Fn;

namespace {

int32_t record(Call call) { return kvx::test::FakeAgent::instance().record(std::move(call)).first; }

}  // namespace

// The executable exports these (ENABLE_EXPORTS), so the dynamic linker binds the plug-in's
// references to them rather than to libtarget.agent.so.
extern "C" {

int32_t start_session(const char* address, int32_t port) { return record({Fn::StartSession, address, port}); }

int32_t destroy_session(void) { return record({Fn::DestroySession}); }

int32_t get_sock_status(void) { return record({Fn::GetSockStatus}); }

int32_t io_write(uint64_t address, uint64_t value, uint32_t size) {
  return record({Fn::IoWrite, "", 0, address, value, size});
}

int32_t io_read(uint64_t address, uint8_t* buffer, uint32_t size) {
  const auto [status, script] =
      kvx::test::FakeAgent::instance().record({Fn::IoRead, "", 0, address, 0, size, buffer});
  std::memcpy(buffer, script.readBytes.data(), size <= 8 ? size : 8);
  return status;
}

int32_t reg_write(const char* name, uint64_t value) { return record({Fn::RegWrite, name, 0, 0, value}); }

// Stores nothing: how many bytes land there is the agent library's business; the plug-in's is
// only to hand the host's buffer through, which `pointer` records.
int32_t reg_read(const char* name, void* destination) {
  return record({Fn::RegRead, name, 0, 0, 0, 0, destination});
}

int32_t ddr_reserve(uint64_t size, uint64_t* address) {
  const auto [status, script] =
      kvx::test::FakeAgent::instance().record({Fn::DdrReserve, "", 0, 0, size, 0, address});
  if (status == 0) *address = script.reservedAddress;
  return status;
}

int32_t ddr_unreserve(uint64_t address) { return record({Fn::DdrUnreserve, "", 0, address}); }

int32_t ddr_unreserve_all(void) { return record({Fn::DdrUnreserveAll}); }

}  // extern "C"
