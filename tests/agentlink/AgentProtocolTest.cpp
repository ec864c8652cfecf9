// The wire format alone. The decoders are fuzzed as well (fuzz/); here every message kind makes
// a round trip, one frame is pinned to its documented bytes, and a table of malformed frames is
// refused.

#include "platform/protocol/AgentProtocol.h"

#include <gtest/gtest.h>

#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

namespace kvx::protocol {
namespace {

using Frame = std::vector<uint8_t>;

Frame encode(const Request& request) {
  Frame frame(kMaxFrameSize);
  frame.resize(encodeRequest(request, frame.data(), frame.size()));
  return frame;
}

Frame encode(const Reply& reply) {
  Frame frame(kMaxFrameSize);
  frame.resize(encodeReply(reply, frame.data(), frame.size()));
  return frame;
}

Request makeRequest(Opcode opcode, uint64_t value = 0, uint32_t size = 0, const std::string& name = "") {
  Request request;
  request.opcode = opcode;
  request.id = 0x01020304;
  request.value = value;
  request.size = size;
  if (opcode == Opcode::kIoWrite) {
    for (uint32_t i = 0; i < size; ++i) request.data[i] = static_cast<uint8_t>(0xA0 + i);
  }
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

TEST(AgentProtocolTest, EveryRequestAndReplySurvivesARoundTrip) {
  const Request requests[] = {
      makeRequest(Opcode::kHello, kProtocolVersion),
      makeRequest(Opcode::kGoodbye),
      makeRequest(Opcode::kIoWrite, 0xFFFFFFFFFFFFFFF8ull, 5),
      makeRequest(Opcode::kIoRead, 0x1000, 8),
      // The longest name in a RegWrite makes the longest frame there is.
      makeRequest(Opcode::kRegWrite, 0x1122334455667788ull, 0, std::string(kMaxRegisterName, 'x')),
      makeRequest(Opcode::kRegRead, 0, 0, "pc"),
      makeRequest(Opcode::kDdrReserve, 100),
      makeRequest(Opcode::kDdrUnreserve, 0x80000040),
      makeRequest(Opcode::kDdrUnreserveAll),
  };
  for (const Request& sent : requests) {
    const Frame frame = encode(sent);
    FrameHeader header;
    Request got;
    ASSERT_TRUE(decodeHeader(frame.data(), frame.size(), header)) << opcodeName(uint8_t(sent.opcode));
    EXPECT_EQ(header.payloadLength, frame.size() - kHeaderSize);
    ASSERT_TRUE(decodeRequest(frame.data(), frame.size(), got)) << opcodeName(uint8_t(sent.opcode));
    EXPECT_EQ(got.opcode, sent.opcode);
    EXPECT_EQ(got.id, sent.id);
    EXPECT_EQ(got.value, sent.value);
    EXPECT_EQ(got.size, sent.size);
    EXPECT_EQ(0, std::memcmp(got.data, sent.data, sizeof got.data));
    EXPECT_STREQ(got.name, sent.name);
  }

  for (Opcode opcode :
       {Opcode::kHello, Opcode::kIoWrite, Opcode::kIoRead, Opcode::kRegWrite, Opcode::kRegRead,
        Opcode::kDdrReserve, Opcode::kDdrUnreserve, Opcode::kDdrUnreserveAll}) {
    Reply sent;
    sent.opcode = opcode;
    sent.id = 77;
    sent.status = ReplyStatus::kDenied;
    sent.value = opcode == Opcode::kRegRead || opcode == Opcode::kDdrReserve ? 0x8877665544332211ull
                 : opcode == Opcode::kHello                                  ? kProtocolVersion
                                                                             : 0;
    if (opcode == Opcode::kIoRead) std::memcpy(sent.data, "\x01\x02\x03\x04\x05\x06\x07\x08", 8);
    if (opcode == Opcode::kRegRead) sent.width = 4;
    const Frame frame = encode(sent);
    ASSERT_EQ(frame.size(), replyFrameSize(opcode)) << opcodeName(uint8_t(opcode));
    Reply got;
    ASSERT_TRUE(decodeReply(frame.data(), frame.size(), got)) << opcodeName(uint8_t(opcode));
    EXPECT_EQ(got.opcode, sent.opcode);
    EXPECT_EQ(got.id, sent.id);
    EXPECT_EQ(got.status, sent.status);
    EXPECT_EQ(got.value, sent.value);
    EXPECT_EQ(0, std::memcmp(got.data, sent.data, sizeof got.data));
    EXPECT_EQ(got.width, sent.width);
  }
}

TEST(AgentProtocolTest, ReadRequestHasTheDocumentedLayout) {
  const Frame expected = {'K',  'A',  0x04, 0x00, 0x04, 0x03, 0x02, 0x01, 12,   0,    0,    0,
                          0x88, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11, 0x04, 0x00, 0x00, 0x00};
  EXPECT_EQ(encode(makeRequest(Opcode::kIoRead, 0x1122334455667788ull, 4)), expected);
}

TEST(AgentProtocolTest, MalformedFramesAreRejected) {
  const Frame read = encode(makeRequest(Opcode::kIoRead, 0x1000, 8));
  const Frame regRead = encode(makeRequest(Opcode::kRegRead, 0, 0, "r12"));
  Reply answer;
  answer.opcode = Opcode::kIoRead;
  const Frame reply = encode(answer);
  answer.opcode = Opcode::kRegRead;
  answer.width = 8;
  const Frame registerReply = encode(answer);
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
      {"length of 4 GiB", kHeader, patch(read, 8, {0xFF, 0xFF, 0xFF, 0xFF})},
      {"request cut by a byte", kRequest, resized(read, read.size() - 1)},
      {"request with a byte too many", kRequest, resized(read, read.size() + 1)},
      {"length under the opcode's", kRequest, resized(patch(read, 8, {4}), kHeaderSize + 4)},
      {"unknown opcode", kRequest, patch(read, 2, {0x0A})},
      {"reply taken for a request", kRequest, reply},
      {"access of 9 bytes", kRequest, patch(read, kHeaderSize + 8, {kMaxAccessSize + 1})},
      {"empty register name", kRequest, resized(patch(regRead, 8, {1, 0, 0, 0, 0}), kHeaderSize + 1)},
      {"register name holding a NUL", kRequest, patch(regRead, kHeaderSize + 2, {0})},
      {"name length past the payload", kRequest, patch(regRead, kHeaderSize, {4})},
      {"name length short of the payload", kRequest, patch(regRead, kHeaderSize, {2})},
      {"reply cut by a byte", kReply, resized(reply, reply.size() - 1)},
      {"reply with a byte too many", kReply, resized(reply, reply.size() + 1)},
      {"request taken for a reply", kReply, read},
      {"reply to goodbye", kReply, patch(reply, 2, {0x82})},
      {"unknown reply opcode", kReply, patch(reply, 2, {0x8A})},
      {"reply with another opcode's length", kReply, resized(patch(reply, 8, {4}), kHeaderSize + 4)},
      {"register wider than 8 bytes", kReply, patch(registerReply, width, {9})},
      {"register read with no width", kReply, patch(registerReply, width, {0})},
  };
  for (const auto& c : cases) {
    FrameHeader header;
    Request request;
    Reply decoded;
    if (c.decoder == kHeader) {
      EXPECT_FALSE(decodeHeader(c.frame.data(), c.frame.size(), header)) << "case: " << c.name;
    }
    if (c.decoder == kReply) {
      EXPECT_FALSE(decodeReply(c.frame.data(), c.frame.size(), decoded)) << "case: " << c.name;
    } else {
      EXPECT_FALSE(decodeRequest(c.frame.data(), c.frame.size(), request)) << "case: " << c.name;
    }
  }
}

}  // namespace
}  // namespace kvx::protocol
