// Fuzzes decodeReply, which the agent client library applies to every reply from the network.
// Beyond memory safety (ASan, UBSan), a reply that decodes keeps every field, so the encoder
// must write it back byte for byte, and it must have the one length its opcode allows.

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "fuzz/FuzzSetup.h"
#include "platform/protocol/AgentProtocol.h"

namespace protocol = kvx::protocol;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  protocol::Reply reply;
  if (!protocol::decodeReply(data, size, reply)) return 0;

  FUZZ_CHECK(reply.opcode != protocol::Opcode::kGoodbye && reply.opcode != protocol::Opcode::kEndSession);
  FUZZ_CHECK(size == protocol::replyFrameSize(reply.opcode));
  FUZZ_CHECK((data[2] & protocol::kReplyBit) != 0);
  // A reader stores `width` bytes of a register read.
  FUZZ_CHECK(reply.width <= protocol::kMaxRegisterWidth);

  uint8_t frame[protocol::kMaxFrameSize];
  const size_t length = protocol::encodeReply(reply, frame, sizeof frame);
  FUZZ_CHECK(length == size);
  FUZZ_CHECK(std::memcmp(frame, data, size) == 0);
  FUZZ_CHECK(protocol::encodeReply(reply, frame, length - 1) == 0);
  // Log lines name whatever arrived.
  FUZZ_CHECK(protocol::opcodeName(data[2]) != nullptr && protocol::statusName(reply.status) != nullptr);
  return 0;
}
