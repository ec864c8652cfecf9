// Fuzzes decodeRequest, which the simulated agent applies to every frame a client sends. Beyond
// memory safety (ASan, UBSan), a frame that decodes must be one the encoder writes again: the
// same length, the same fields, the same bytes but for the unused data bytes of a write, which
// the encoder always sends as zero.

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "fuzz/FuzzSetup.h"
#include "platform/protocol/AgentProtocol.h"

namespace protocol = kvx::protocol;

namespace {

bool sameFields(const protocol::Request& a, const protocol::Request& b) {
  return a.opcode == b.opcode && a.id == b.id && a.value == b.value && a.size == b.size &&
         std::memcmp(a.data, b.data, a.size) == 0 && a.nameLength == b.nameLength &&
         std::memcmp(a.name, b.name, sizeof a.name) == 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  protocol::FrameHeader header;
  const bool headerDecoded = protocol::decodeHeader(data, size, header);
  protocol::Request request;
  if (!protocol::decodeRequest(data, size, request)) return 0;

  FUZZ_CHECK(headerDecoded);
  FUZZ_CHECK(size == protocol::kHeaderSize + header.payloadLength && size <= protocol::kMaxFrameSize);
  FUZZ_CHECK(request.id == header.id && static_cast<uint8_t>(request.opcode) == header.opcode);
  FUZZ_CHECK(request.size <= protocol::kMaxAccessSize);
  FUZZ_CHECK(request.nameLength <= protocol::kMaxRegisterName && request.name[request.nameLength] == '\0');

  uint8_t frame[protocol::kMaxFrameSize];
  const size_t length = protocol::encodeRequest(request, frame, sizeof frame);
  FUZZ_CHECK(length == size);
  FUZZ_CHECK(protocol::encodeRequest(request, frame, length - 1) == 0);
  protocol::Request again;
  FUZZ_CHECK(protocol::decodeRequest(frame, length, again));
  FUZZ_CHECK(sameFields(request, again));

  // IoWrite payload: address (8), size (4), then the data; bytes past `size` go out as zero.
  size_t unusedFrom = size;
  if (request.opcode == protocol::Opcode::kIoWrite) unusedFrom = protocol::kHeaderSize + 12 + request.size;
  FUZZ_CHECK(std::memcmp(frame, data, unusedFrom) == 0);
  for (size_t i = unusedFrom; i < size; ++i) FUZZ_CHECK(frame[i] == 0);
  return 0;
}
