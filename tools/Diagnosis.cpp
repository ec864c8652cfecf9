#include "tools/Diagnosis.h"

#include <cstdlib>
#include <cstring>
#include <memory>

#include "common/AgentTimeout.h"
#include "platform/protocol/AgentProtocol.h"
#include "tests/support/WireConnection.h"
#include "tools/Numbers.h"

namespace kvx::cli {
namespace {

namespace protocol = kvx::protocol;

/// What a refusal means in the user's terms, for the statuses that need no further question.
std::string meaning(protocol::ReplyStatus status) {
  switch (status) {
    case protocol::ReplyStatus::kDenied:
      return "access denied: the agent closes this range to accesses";
    case protocol::ReplyStatus::kOutOfMemory:
      return "the target is out of memory";
    case protocol::ReplyStatus::kUnknownRegister:
      return "unknown register (kvx-ta regs lists the registers)";
    default:
      return std::string("the agent refused it (") + protocol::statusName(status) + ")";
  }
}

}  // namespace

Diagnosis::Diagnosis(common::Endpoint endpoint) : m_endpoint(std::move(endpoint)) {}

unsigned Diagnosis::timeoutMs() { return common::agentTimeoutMs(); }

std::unique_ptr<test::WireConnection> Diagnosis::open(std::string& why) {
  const unsigned timeout = timeoutMs();
  const std::string deadline = deadlineMissed();
  const auto dialed = m_dialer.dial(m_endpoint.host.c_str(), m_endpoint.port,
                                    common::Dialer::Clock::now() + std::chrono::milliseconds(timeout));
  switch (dialed.error) {
    case common::Dialer::Error::kNone:
      break;
    case common::Dialer::Error::kUnresolved:
      why = "the name '" + m_endpoint.host + "' does not resolve";
      return nullptr;
    case common::Dialer::Error::kRefused:
      why = "connection refused: nothing listens on port " + std::to_string(m_endpoint.port);
      return nullptr;
    case common::Dialer::Error::kTimedOut:
      why = deadline;
      return nullptr;
    case common::Dialer::Error::kFailed:
      why = std::strerror(dialed.systemError);
      return nullptr;
  }
  auto wire = std::make_unique<test::WireConnection>(dialed.fd, std::chrono::milliseconds(timeout));
  protocol::Request hello;
  hello.value = protocol::kProtocolVersion;
  test::Frame frame(protocol::kHeaderSize);
  protocol::FrameHeader header;
  protocol::Reply reply;
  if (!wire->send(test::encoded(hello)) || !wire->receive(frame.data(), frame.size())) {
    why = wire->timedOut() ? deadline
                           : "what answered is not a KVX agent: it closed the connection without a word";
    return nullptr;
  }
  if (!protocol::decodeHeader(frame.data(), frame.size(), header)) {
    why = "what answered is not a KVX agent";
    return nullptr;
  }
  frame.resize(protocol::kHeaderSize + header.payloadLength);
  if (!wire->receive(frame.data() + protocol::kHeaderSize, header.payloadLength) ||
      !protocol::decodeReply(frame.data(), frame.size(), reply) || reply.opcode != protocol::Opcode::kHello) {
    why = wire->timedOut() ? deadline : "what answered is not a KVX agent";
    return nullptr;
  }
  if (reply.status == protocol::ReplyStatus::kSessionRefused) {
    why = "the agent refused the session";
    return nullptr;
  }
  if (reply.status == protocol::ReplyStatus::kVersionMismatch || reply.value != protocol::kProtocolVersion) {
    why = "protocol version mismatch: the agent speaks version " + std::to_string(reply.value) +
          ", kvx-ta version " + std::to_string(protocol::kProtocolVersion);
    return nullptr;
  }
  if (reply.status != protocol::ReplyStatus::kOk) {
    why = meaning(reply.status);
    return nullptr;
  }
  return wire;
}

std::string Diagnosis::noSession() {
  std::string why;
  return open(why) ? "the agent did not open a session, though it answers now" : why;
}

std::string Diagnosis::lostSession(unsigned elapsedMs) {
  // The agent library closes the session on a timeout as on a lost connection; the time the call
  // took tells them apart.
  if (elapsedMs >= timeoutMs()) return deadlineMissed();
  std::string why;
  return open(why) ? "the agent closed the connection" : why;
}

std::string Diagnosis::deadlineMissed() {
  return "no answer within " + std::to_string(timeoutMs()) +
         " ms (the deadline that --timeout or TA_AGENT_TIMEOUT_MS sets)";
}

std::string Diagnosis::memoryRefused(bool write, uint64_t address, unsigned size) {
  std::string why;
  auto wire = open(why);
  if (!wire) return "the agent refused it, and then " + why;
  // A read of the same bytes changes nothing and meets the same closed ranges.
  protocol::Request read;
  read.opcode = protocol::Opcode::kIoRead;
  read.value = address;
  read.size = size;
  protocol::Reply reply;
  if (!wire->transact(read, reply)) return "the agent refused it, and then stopped answering";
  if (reply.status != protocol::ReplyStatus::kOk) return meaning(reply.status);
  return write ? meaning(protocol::ReplyStatus::kOutOfMemory) + ": the agent takes no more memory for writes"
               : "the agent refused it once and reads it now";
}

std::string Diagnosis::registerRefused(bool write, const std::string& name, uint64_t value) {
  std::string why;
  auto wire = open(why);
  if (!wire) return "the agent refused it, and then " + why;
  protocol::Request read;
  read.opcode = protocol::Opcode::kRegRead;
  read.nameLength = static_cast<uint8_t>(std::min(name.size(), protocol::kMaxRegisterName));
  std::memcpy(read.name, name.data(), read.nameLength);
  protocol::Reply reply;
  if (name.empty() || name.size() > protocol::kMaxRegisterName)
    return meaning(protocol::ReplyStatus::kUnknownRegister);
  if (!wire->transact(read, reply)) return "the agent refused it, and then stopped answering";
  if (reply.status != protocol::ReplyStatus::kOk) return meaning(reply.status);
  if (write && reply.width < 8 && (value >> (8 * reply.width)) != 0) {
    return "value too wide: " + name + " is a " + std::to_string(8 * reply.width) + "-bit register";
  }
  return write ? "the agent refused the value" : "the agent refused it once and reads it now";
}

}  // namespace kvx::cli
