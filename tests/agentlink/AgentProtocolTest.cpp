#include "platform/protocol/AgentProtocol.h"

#include <gtest/gtest.h>

#include <cstring>
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

Request makeRequest(Opcode opcode, uint64_t value = 0, uint32_t size = 0, const char* name = "") {
  Request request;
  request.opcode = opcode;
  request.id = 0x01020304;
  request.value = value;
  request.size = size;
  if (opcode == Opcode::kIoWrite) {
    for (uint32_t i = 0; i < size && i < kMaxAccessSize; ++i)
      request.data[i] = static_cast<uint8_t>(0xA0 + i);
  }
  request.nameLength = static_cast<uint8_t>(std::strlen(name));
  std::memcpy(request.name, name, request.nameLength);
  return request;
}

std::vector<Request> everyRequest() {
  return {makeRequest(Opcode::kHello, kProtocolVersion),
          makeRequest(Opcode::kGoodbye),
          makeRequest(Opcode::kIoWrite, 0xFFFFFFFFFFFFFFF8ull, 5),
          makeRequest(Opcode::kIoRead, 0x1000, 8),
          makeRequest(Opcode::kRegWrite, 0x1122334455667788ull, 0, "r63"),
          makeRequest(Opcode::kRegRead, 0, 0, "pc"),
          makeRequest(Opcode::kDdrReserve, 100),
          makeRequest(Opcode::kDdrUnreserve, 0x80000040),
          makeRequest(Opcode::kDdrUnreserveAll)};
}

std::vector<Reply> everyReply() {
  std::vector<Reply> replies;
  for (Opcode opcode :
       {Opcode::kHello, Opcode::kIoWrite, Opcode::kIoRead, Opcode::kRegWrite, Opcode::kRegRead,
        Opcode::kDdrReserve, Opcode::kDdrUnreserve, Opcode::kDdrUnreserveAll}) {
    Reply reply;
    reply.opcode = opcode;
    reply.id = 77;
    reply.status = ReplyStatus::kDenied;
    if (opcode == Opcode::kHello) reply.value = kProtocolVersion;
    if (opcode == Opcode::kRegRead || opcode == Opcode::kDdrReserve) reply.value = 0x8877665544332211ull;
    if (opcode == Opcode::kIoRead) {
      for (uint8_t i = 0; i < kMaxAccessSize; ++i) reply.data[i] = static_cast<uint8_t>(i + 1);
    }
    replies.push_back(reply);
  }
  return replies;
}

TEST(AgentProtocolTest, EveryRequestSurvivesARoundTrip) {
  for (const Request& sent : everyRequest()) {
    const Frame frame = encode(sent);
    Request got;
    ASSERT_TRUE(decodeRequest(frame.data(), frame.size(), got))
        << "opcode " << opcodeName(uint8_t(sent.opcode));
    EXPECT_EQ(got.opcode, sent.opcode);
    EXPECT_EQ(got.id, sent.id);
    EXPECT_EQ(got.value, sent.value);
    EXPECT_EQ(got.size, sent.size);
    EXPECT_EQ(0, std::memcmp(got.data, sent.data, sizeof got.data));
    EXPECT_EQ(got.nameLength, sent.nameLength);
    EXPECT_STREQ(got.name, sent.name);
  }
}

TEST(AgentProtocolTest, EveryReplySurvivesARoundTrip) {
  for (const Reply& sent : everyReply()) {
    const Frame frame = encode(sent);
    ASSERT_EQ(frame.size(), replyFrameSize(sent.opcode));
    Reply got;
    ASSERT_TRUE(decodeReply(frame.data(), frame.size(), got))
        << "opcode " << opcodeName(uint8_t(sent.opcode));
    EXPECT_EQ(got.opcode, sent.opcode);
    EXPECT_EQ(got.id, sent.id);
    EXPECT_EQ(got.status, sent.status);
    EXPECT_EQ(got.value, sent.value);
    EXPECT_EQ(0, std::memcmp(got.data, sent.data, sizeof got.data));
  }
}

TEST(AgentProtocolTest, ReadRequestAndReplyHaveTheDocumentedLayout) {
  const Frame request = encode(makeRequest(Opcode::kIoRead, 0x1122334455667788ull, 4));
  const Frame expectedRequest = {'K',  'A',  0x04, 0x00, 0x04, 0x03, 0x02, 0x01, 12,   0,    0,    0,
                                 0x88, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11, 0x04, 0x00, 0x00, 0x00};
  EXPECT_EQ(request, expectedRequest);

  Reply reply;
  reply.opcode = Opcode::kIoRead;
  reply.id = 0x01020304;
  reply.data[0] = 0xAB;
  const Frame expectedReply = {'K',  'A', 0x84, 0x00, 0x04, 0x03, 0x02, 0x01, 12, 0, 0, 0,
                               0x00, 0,   0,    0,    0xAB, 0,    0,    0,    0,  0, 0, 0};
  EXPECT_EQ(encode(reply), expectedReply);
}

TEST(AgentProtocolTest, TruncatedOrOverlongFramesAreRejected) {
  for (const Request& request : everyRequest()) {
    Frame frame = encode(request);
    Request got;
    for (size_t length = 0; length < frame.size(); ++length) {
      EXPECT_FALSE(decodeRequest(frame.data(), length, got))
          << opcodeName(uint8_t(request.opcode)) << " cut to " << length;
    }
    frame.push_back(0);
    EXPECT_FALSE(decodeRequest(frame.data(), frame.size(), got))
        << opcodeName(uint8_t(request.opcode)) << " plus one";
  }
  for (const Reply& reply : everyReply()) {
    Frame frame = encode(reply);
    Reply got;
    for (size_t length = 0; length < frame.size(); ++length) {
      EXPECT_FALSE(decodeReply(frame.data(), length, got))
          << opcodeName(uint8_t(reply.opcode)) << " cut to " << length;
    }
    frame.push_back(0);
    EXPECT_FALSE(decodeReply(frame.data(), frame.size(), got))
        << opcodeName(uint8_t(reply.opcode)) << " plus one";
  }
}

TEST(AgentProtocolTest, HeadersWithBadMagicReservedByteOrOversizedLengthAreRejected) {
  const Frame good = encode(makeRequest(Opcode::kDdrReserve, 64));
  FrameHeader header;
  ASSERT_TRUE(decodeHeader(good.data(), good.size(), header));
  EXPECT_EQ(header.payloadLength, 8u);

  struct Case {
    const char* name;
    size_t offset;
    std::vector<uint8_t> bytes;
  };
  const Case cases[] = {
      {"bad magic", 0, {'k'}},
      {"bad second magic byte", 1, {'B'}},
      {"reserved byte set", 3, {1}},
      {"length one past the maximum", 8, {uint8_t(kMaxPayloadSize + 1), 0, 0, 0}},
      {"length of 4 GiB", 8, {0xFF, 0xFF, 0xFF, 0xFF}},
  };
  for (const Case& c : cases) {
    Frame frame = good;
    std::memcpy(frame.data() + c.offset, c.bytes.data(), c.bytes.size());
    EXPECT_FALSE(decodeHeader(frame.data(), frame.size(), header)) << c.name;
    Request request;
    EXPECT_FALSE(decodeRequest(frame.data(), frame.size(), request)) << c.name;
  }
}

TEST(AgentProtocolTest, RegisterNamesAndAccessSizesAreBounded) {
  const std::string longest(kMaxRegisterName, 'x');
  Frame frame = encode(makeRequest(Opcode::kRegRead, 0, 0, longest.c_str()));
  ASSERT_EQ(frame.size(), kHeaderSize + 1 + kMaxRegisterName);
  Request got;
  ASSERT_TRUE(decodeRequest(frame.data(), frame.size(), got));
  EXPECT_EQ(std::string(got.name), longest);
  // The longest name in a RegWrite makes the longest frame there is.
  EXPECT_EQ(encode(makeRequest(Opcode::kRegWrite, 1, 0, longest.c_str())).size(), kMaxFrameSize);

  uint8_t buffer[kMaxFrameSize * 2];
  const std::string tooLong(kMaxRegisterName + 1, 'x');
  Request request = makeRequest(Opcode::kRegRead, 0, 0, "r1");
  request.nameLength = static_cast<uint8_t>(tooLong.size());
  std::memcpy(request.name, tooLong.data(), kMaxRegisterName);  // the array is full; the length lies
  EXPECT_EQ(encodeRequest(request, buffer, sizeof buffer), 0u);
  EXPECT_EQ(encodeRequest(makeRequest(Opcode::kRegRead, 0, 0, ""), buffer, sizeof buffer), 0u);
  EXPECT_EQ(encodeRequest(makeRequest(Opcode::kIoRead, 0, kMaxAccessSize + 1), buffer, sizeof buffer), 0u);
  EXPECT_EQ(encodeRequest(makeRequest(Opcode::kIoRead, 0, 4), buffer, kHeaderSize), 0u) << "no room";

  // Crafted frames the encoder refuses to produce: a NUL inside a name, an access of 9 bytes.
  frame = encode(makeRequest(Opcode::kRegRead, 0, 0, "r12"));
  frame[kHeaderSize + 2] = 0;
  EXPECT_FALSE(decodeRequest(frame.data(), frame.size(), got));
  frame = encode(makeRequest(Opcode::kIoRead, 0, 8));
  frame[kHeaderSize + 8] = kMaxAccessSize + 1;
  EXPECT_FALSE(decodeRequest(frame.data(), frame.size(), got));
}

TEST(AgentProtocolTest, RequestsAndRepliesAreNotTakenForEachOther) {
  Reply reply;
  for (const Request& request : everyRequest()) {
    const Frame frame = encode(request);
    EXPECT_FALSE(decodeReply(frame.data(), frame.size(), reply)) << opcodeName(uint8_t(request.opcode));
  }
  Request request;
  for (const Reply& sent : everyReply()) {
    const Frame frame = encode(sent);
    EXPECT_FALSE(decodeRequest(frame.data(), frame.size(), request)) << opcodeName(uint8_t(sent.opcode));
  }
  Frame unknown = encode(makeRequest(Opcode::kDdrUnreserveAll));
  unknown[2] = 0x0A;
  EXPECT_FALSE(decodeRequest(unknown.data(), unknown.size(), request));
  unknown[2] = 0x0A | kReplyBit;
  EXPECT_FALSE(decodeReply(unknown.data(), unknown.size(), reply));
}

}  // namespace
}  // namespace kvx::protocol
