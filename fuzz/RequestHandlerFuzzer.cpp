// Fuzzes the simulated target as a client's byte stream reaches it: the input is cut into frames
// the way a connection cuts its buffer, and every frame that decodes is answered by one
// RequestHandler over target memory, registers and reservations. A reference model made of
// plain maps predicts every answer: reads return the bytes written last, refused writes change
// nothing, the memory limit counts 4 KiB pages, registers keep their values and refuse wider
// ones, and reservations are placed first-fit, aligned, inside the region and never overlapping.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <map>
#include <set>
#include <string>

#include "fuzz/FuzzSetup.h"
#include "platform/protocol/AgentProtocol.h"
#include "sim/RequestHandler.h"

namespace protocol = kvx::protocol;
using protocol::Opcode;
using protocol::ReplyStatus;

namespace {

constexpr uint64_t kPageSize = 4096;
constexpr uint64_t kAlignment = 64;

/// What the target should hold, kept as simply as possible.
class Model {
 public:
  void check(const protocol::Request& request, const protocol::Reply& reply) {
    switch (request.opcode) {
      case Opcode::kHello:
        FUZZ_CHECK(reply.value == protocol::kProtocolVersion);
        FUZZ_CHECK(
            reply.status ==
            (request.value == protocol::kProtocolVersion ? ReplyStatus::kOk : ReplyStatus::kVersionMismatch));
        break;
      case Opcode::kIoWrite:
        FUZZ_CHECK(reply.status == write(request.value, request.data, request.size));
        break;
      case Opcode::kIoRead:
        checkRead(request.value, request.size, reply);
        break;
      case Opcode::kRegWrite:
        if (widthOf(request.name) == 0) {
          FUZZ_CHECK(reply.status == ReplyStatus::kUnknownRegister);
        } else if (widthOf(request.name) < 8 && request.value >> (8 * widthOf(request.name)) != 0) {
          FUZZ_CHECK(reply.status == ReplyStatus::kValueTooWide);
        } else {
          FUZZ_CHECK(reply.status == ReplyStatus::kOk);
          m_registers[request.name] = request.value;
        }
        break;
      case Opcode::kRegRead:
        if (widthOf(request.name) != 0) {
          FUZZ_CHECK(reply.status == ReplyStatus::kOk && reply.value == m_registers[request.name] &&
                     reply.width == widthOf(request.name));
        } else {
          FUZZ_CHECK(reply.status == ReplyStatus::kUnknownRegister && reply.value == 0 && reply.width == 0);
        }
        break;
      case Opcode::kDdrReserve:
        checkReserve(request.value, reply);
        break;
      case Opcode::kDdrUnreserve:
        if (m_blocks.erase(request.value) == 1) {
          FUZZ_CHECK(reply.status == ReplyStatus::kOk);
        } else {
          FUZZ_CHECK(reply.status == ReplyStatus::kNotReserved);
        }
        break;
      case Opcode::kDdrUnreserveAll:
        FUZZ_CHECK(reply.status == ReplyStatus::kOk);
        m_blocks.clear();
        break;
      case Opcode::kGoodbye:
      case Opcode::kEndSession:
        break;
    }
  }

 private:
  static bool isDenied(uint64_t address, uint32_t size) {
    for (uint32_t i = 0; i < size; ++i) {
      const uint64_t byte = address + i;  // wraps at 2^64, as target addresses do
      if (byte - kvx::fuzz::kDeniedStart < kvx::fuzz::kDeniedLength) return true;
      if (byte - kvx::fuzz::kWrappingDeniedStart < kvx::fuzz::kWrappingDeniedLength) return true;
    }
    return false;
  }

  /// The register's width in bytes, or 0 when there is none of that name.
  static unsigned widthOf(const std::string& name) {
    static const std::map<std::string, unsigned> widths = [] {
      std::map<std::string, unsigned> all = {{"pc", 8}, {"sp", 8}, {"ra", 8}, {"ps", 4}};
      for (int i = 0; i < 64; ++i) all["r" + std::to_string(i)] = 8;
      return all;
    }();
    const auto found = widths.find(name);
    return found == widths.end() ? 0 : found->second;
  }

  ReplyStatus write(uint64_t address, const uint8_t* data, uint32_t size) {
    if (isDenied(address, size)) return ReplyStatus::kDenied;
    std::set<uint64_t> pages = m_pages;
    for (uint32_t i = 0; i < size; ++i) pages.insert((address + i) / kPageSize);
    if (pages.size() > kvx::fuzz::kMemoryLimit / kPageSize) return ReplyStatus::kOutOfMemory;
    m_pages = pages;
    for (uint32_t i = 0; i < size; ++i) m_bytes[address + i] = data[i];
    return ReplyStatus::kOk;
  }

  void checkRead(uint64_t address, uint32_t size, const protocol::Reply& reply) const {
    const bool denied = isDenied(address, size);
    FUZZ_CHECK(reply.status == (denied ? ReplyStatus::kDenied : ReplyStatus::kOk));
    for (uint32_t i = 0; i < protocol::kMaxAccessSize; ++i) {
      uint8_t expected = 0;
      if (!denied && i < size) {
        const auto byte = m_bytes.find(address + i);
        if (byte != m_bytes.end()) expected = byte->second;
      }
      FUZZ_CHECK(reply.data[i] == expected);
    }
  }

  void checkReserve(uint64_t size, const protocol::Reply& reply) {
    if (size == 0) {
      FUZZ_CHECK(reply.status == ReplyStatus::kInvalidArgument);
      return;
    }
    // The lowest gap of the region that takes the rounded size.
    bool fits = false;
    uint64_t candidate = kvx::fuzz::kReserveBase;
    if (size <= kvx::fuzz::kReserveSize) {
      const uint64_t length = (size + kAlignment - 1) / kAlignment * kAlignment;
      for (const auto& [start, blockLength] : m_blocks) {
        if (start - candidate >= length) break;
        candidate = start + blockLength;
      }
      fits = kvx::fuzz::kReserveBase + kvx::fuzz::kReserveSize - candidate >= length;
      if (fits) {
        FUZZ_CHECK(reply.status == ReplyStatus::kOk && reply.value == candidate);
        FUZZ_CHECK(reply.value % kAlignment == 0);
        m_blocks.emplace(candidate, length);
        return;
      }
    }
    FUZZ_CHECK(reply.status == ReplyStatus::kNoSpace);
  }

  std::map<uint64_t, uint8_t> m_bytes;
  std::set<uint64_t> m_pages;
  std::map<std::string, uint64_t> m_registers;
  std::map<uint64_t, uint64_t> m_blocks;  ///< reserved blocks: address -> rounded length
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  kvx::sim::RequestHandler handler(kvx::fuzz::targetOptions());
  Model model;
  size_t offset = 0;
  for (;;) {
    protocol::FrameHeader header;
    if (!protocol::decodeHeader(data + offset, size - offset, header)) break;
    const size_t frameSize = protocol::kHeaderSize + header.payloadLength;
    if (size - offset < frameSize) break;
    protocol::Request request;
    const bool decoded = protocol::decodeRequest(data + offset, frameSize, request);
    offset += frameSize;
    // A connection would end at a malformed frame or a goodbye; going on lets one input carry
    // more requests for the target.
    if (!decoded || protocol::replyFrameSize(request.opcode) == 0) continue;

    protocol::Reply reply;
    handler.handle(request, reply);
    FUZZ_CHECK(reply.opcode == request.opcode && reply.id == request.id);
    uint8_t frame[protocol::kMaxFrameSize];
    FUZZ_CHECK(protocol::encodeReply(reply, frame, sizeof frame) == protocol::replyFrameSize(request.opcode));
    model.check(request, reply);
  }
  return 0;
}
