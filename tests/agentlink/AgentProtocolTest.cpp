// The wire format alone. The decoders are fuzzed as well (fuzz/); here every message kind makes
// a round trip, one frame is pinned to its documented bytes, and a table of malformed frames is
// refused.

#include "platform/protocol/AgentProtocol.h"

#include <gtest/gtest.h>

#include <cstring>
#include <initializer_list>
#include <string>

#include "tests/support/WireConnection.h"

namespace kvx::protocol {
namespace {

using test::encoded;
using test::Frame;

Request makeRequest(Opcode opcode, uint64_t value, uint32_t size, const std::string& name = "") {
  Request request;
  request.opcode = opcode;
  request.id = 0x01020304;
  request.value = value;
  request.size = size;
  request.nameLength = static_cast<uint8_t>(name.size());
  std::memcpy(request.name, name.data(), name.size());
  return request;
}

/// `frame` with `bytes` written over it from `offset` on.
Frame patch(Frame frame, size_t offset, std::initializer_list<uint8_t> bytes) {
  for (uint8_t byte : bytes) frame.at(offset++) = byte;
  return frame;
}

/// `frame` cut to, or padded with zeros to, `length` bytes.
Frame resized(Frame frame, size_t length) {
  frame.resize(length);
  return frame;
}

// Decoding and encoding again gives the same bytes: no field is lost or moved on the way. Every
// field is set, whatever the opcode, and each message carries those of its kind; the longest name
// makes the longest frame there is.
TEST(AgentProtocolTest, EveryRequestAndReplySurvivesARoundTrip) {
  Request request = makeRequest(Opcode::kHello, 0x1122334455667788ull, 5, std::string(kMaxRegisterName, 'x'));
  std::memcpy(request.data, "\xA0\xA1\xA2\xA3\xA4", 5);
  Reply reply;
  reply.id = 77;
  reply.status = ReplyStatus::kDenied;
  reply.value = 0x8877665544332211ull;
  std::memcpy(reply.data, "\x01\x02\x03\x04\x05\x06\x07\x08", 8);
  reply.width = 4;
  for (uint8_t opcode = uint8_t(Opcode::kHello); opcode <= uint8_t(Opcode::kEndSession); ++opcode) {
    request.opcode = reply.opcode = Opcode(opcode);
    Request gotRequest;
    Reply gotReply;
    const Frame requestFrame = encoded(request);
    ASSERT_TRUE(decodeRequest(requestFrame.data(), requestFrame.size(), gotRequest)) << opcodeName(opcode);
    EXPECT_EQ(encoded(gotRequest), requestFrame) << opcodeName(opcode);
    if (replyFrameSize(reply.opcode) == 0) continue;  // Goodbye and EndSession have no reply
    const Frame replyFrame = encoded(reply);
    ASSERT_EQ(replyFrame.size(), replyFrameSize(reply.opcode)) << opcodeName(opcode);
    ASSERT_TRUE(decodeReply(replyFrame.data(), replyFrame.size(), gotReply)) << opcodeName(opcode);
    EXPECT_EQ(encoded(gotReply), replyFrame) << opcodeName(opcode);
  }
}

TEST(AgentProtocolTest, ReadRequestHasTheDocumentedLayout) {
  const Frame expected = {'K',  'A',  0x04, 0x00, 0x04, 0x03, 0x02, 0x01, 12,   0,    0,    0,
                          0x88, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11, 0x04, 0x00, 0x00, 0x00};
  EXPECT_EQ(encoded(makeRequest(Opcode::kIoRead, 0x1122334455667788ull, 4)), expected);
}

TEST(AgentProtocolTest, MalformedFramesAreRejected) {
  const Frame read = encoded(makeRequest(Opcode::kIoRead, 0x1000, 8));
  const Frame regRead = encoded(makeRequest(Opcode::kRegRead, 0, 0, "r12"));
  Reply answer;
  answer.opcode = Opcode::kIoRead;
  const Frame readReply = encoded(answer);
  answer.opcode = Opcode::kRegRead;
  answer.width = 8;
  const Frame registerReply = encoded(answer);
  const size_t width = kHeaderSize + 4 + 8;
  // kHeader: refused by decodeHeader already, so a reader never waits for the payload.
  enum Decoder { kHeader, kRequest, kReply };
  const struct {
    const char* name;
    Decoder decoder;
    Frame frame;
  } cases[] = {
      {"bad magic", kHeader, patch(read, 0, {'k'})},
      {"bad second magic byte", kHeader, patch(read, 1, {'B'})},
      {"reserved byte set", kHeader, patch(read, 3, {1})},
      {"length one past the maximum", kHeader, patch(read, 8, {kMaxPayloadSize + 1})},
      {"request cut by a byte", kRequest, resized(read, read.size() - 1)},
      {"request with a byte too many", kRequest, resized(read, read.size() + 1)},
      {"length under the opcode's", kRequest, resized(patch(read, 8, {4}), kHeaderSize + 4)},
      {"unknown opcode", kRequest, patch(read, 2, {0x0B})},
      {"reply taken for a request", kRequest, readReply},
      {"access of 9 bytes", kRequest, patch(read, kHeaderSize + 8, {kMaxAccessSize + 1})},
      {"empty register name", kRequest, resized(patch(regRead, 8, {1, 0, 0, 0, 0}), kHeaderSize + 1)},
      {"register name holding a NUL", kRequest, patch(regRead, kHeaderSize + 2, {0})},
      {"name length past the payload", kRequest, patch(regRead, kHeaderSize, {4})},
      {"name length short of the payload", kRequest, patch(regRead, kHeaderSize, {2})},
      {"reply cut by a byte", kReply, resized(readReply, readReply.size() - 1)},
      {"reply with a byte too many", kReply, resized(readReply, readReply.size() + 1)},
      {"request taken for a reply", kReply, read},
      {"reply to goodbye", kReply, patch(readReply, 2, {0x82})},
      {"unknown reply opcode", kReply, patch(readReply, 2, {0x8B})},
      {"reply with another opcode's length", kReply, resized(patch(readReply, 8, {4}), kHeaderSize + 4)},
      {"register wider than 8 bytes", kReply, patch(registerReply, width, {9})},
      {"register read with no width", kReply, patch(registerReply, width, {0})},
  };
  for (const auto& c : cases) {
    FrameHeader header;
    Request request;
    Reply reply;
    EXPECT_FALSE(c.decoder == kHeader && decodeHeader(c.frame.data(), c.frame.size(), header))
        << "case: " << c.name;
    EXPECT_FALSE(c.decoder == kReply ? decodeReply(c.frame.data(), c.frame.size(), reply)
                                     : decodeRequest(c.frame.data(), c.frame.size(), request))
        << "case: " << c.name;
  }
}

}  // namespace
}  // namespace kvx::protocol
