#include "FakeAgent.h"

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
  for (const Call& call : calls()) {
    result.push_back(call.fn);
  }
  return result;
}

Session FakeAgent::session() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_session;
}

void FakeAgent::setStatus(Fn fn, int32_t status) {
  script([fn, status](Script& script) { script.statuses[fn] = status; });
}

int32_t FakeAgent::recordLocked(Call call) {
  call.sessionOpen = m_session.open;
  call.sessionAddress = m_session.address;
  call.sessionPort = m_session.port;
  auto scripted = m_script.statuses.find(call.fn);
  int32_t status = 0;
  if (scripted != m_script.statuses.end()) {
    status = scripted->second;
  } else if (call.fn != Fn::StartSession && call.fn != Fn::DestroySession) {
    // Like the real library: nothing but opening and closing works without a session.
    status = m_session.open ? 0 : -1;
  }
  if (call.fn == Fn::StartSession) {
    m_session = Session{status == 0, call.text, call.port};
  } else if (call.fn == Fn::DestroySession) {
    m_session = Session();
  }
  m_calls.push_back(std::move(call));
  return status;
}

}  // namespace kvx::test

using kvx::test::Call;
using kvx::test::FakeAgent;
using kvx::test::Fn;
using kvx::test::Script;

namespace {

int32_t record(Call call) {
  // Gives other threads a chance to run between a caller's calls, so that races in the
  // plug-in's use of the one session show up in the concurrency tests.
  std::this_thread::yield();
  return FakeAgent::instance().record(std::move(call));
}

template <typename Answer>
int32_t record(Call call, Answer answer) {
  std::this_thread::yield();
  return FakeAgent::instance().record(std::move(call), answer);
}

}  // namespace

// The executable exports these (ENABLE_EXPORTS), so the dynamic linker binds the plug-in's
// references to them rather than to libtarget.agent.so.
extern "C" {

int32_t start_session(const char* address, int32_t port) {
  Call call(Fn::StartSession);
  call.text = address;
  call.port = port;
  return record(std::move(call));
}

int32_t destroy_session(void) { return record(Call(Fn::DestroySession)); }

int32_t get_sock_status(void) { return record(Call(Fn::GetSockStatus)); }

int32_t io_write(uint64_t address, uint64_t value, uint32_t size) {
  Call call(Fn::IoWrite);
  call.address = address;
  call.value = value;
  call.size = size;
  return record(std::move(call));
}

int32_t io_read(uint64_t address, uint8_t* buffer, uint32_t size) {
  Call call(Fn::IoRead);
  call.address = address;
  call.size = size;
  call.pointer = buffer;
  return record(std::move(call), [=](const Script& s, int32_t) {
    std::memcpy(buffer, s.readBytes.data(), size <= 8 ? size : 8);
  });
}

int32_t reg_write(const char* name, uint64_t value) {
  Call call(Fn::RegWrite);
  call.text = name;
  call.value = value;
  return record(std::move(call));
}

int32_t reg_read(const char* name, void* destination) {
  Call call(Fn::RegRead);
  call.text = name;
  // Stores nothing: how many bytes land there is the agent library's business; the plug-in's
  // is only to hand the host's buffer through, which `pointer` records.
  call.pointer = destination;
  return record(std::move(call));
}

int32_t ddr_reserve(uint64_t size, uint64_t* address) {
  Call call(Fn::DdrReserve);
  call.value = size;
  call.pointer = address;
  return record(std::move(call), [=](const Script& s, int32_t status) {
    if (status == 0) *address = s.reservedAddress;
  });
}

int32_t ddr_unreserve(uint64_t address) {
  Call call(Fn::DdrUnreserve);
  call.address = address;
  return record(std::move(call));
}

int32_t ddr_unreserve_all(void) { return record(Call(Fn::DdrUnreserveAll)); }

}  // extern "C"
