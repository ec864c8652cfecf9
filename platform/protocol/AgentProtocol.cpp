#include "platform/protocol/AgentProtocol.h"

#include <cstring>

namespace kvx::protocol {

namespace {

// Fixed payload lengths, one name per fact; RegWrite and RegRead add the name's bytes.
constexpr size_t kStatusSize = 4;
constexpr size_t kHelloPayload = 4;
constexpr size_t kIoWritePayload = 8 + 4 + kMaxAccessSize;
constexpr size_t kIoReadPayload = 8 + 4;
constexpr size_t kRegWriteFixedPayload = 8 + 1;
constexpr size_t kRegReadFixedPayload = 1;
constexpr size_t kAddressPayload = 8;
constexpr size_t kRegReadReplyPayload = kStatusSize + 8 + 1;

static_assert(kRegWriteFixedPayload + kMaxRegisterName == kMaxPayloadSize,
              "RegWrite with the longest name is the largest frame");
static_assert(kIoWritePayload <= kMaxPayloadSize && kHelloPayload <= kMaxPayloadSize &&
              kRegReadReplyPayload <= kMaxPayloadSize);

uint32_t load32(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 | static_cast<uint32_t>(p[2]) << 16 |
         static_cast<uint32_t>(p[3]) << 24;
}

uint64_t load64(const uint8_t* p) { return static_cast<uint64_t>(load32(p)) | uint64_t{load32(p + 4)} << 32; }

void store32(uint8_t* p, uint32_t v) {
  p[0] = static_cast<uint8_t>(v);
  p[1] = static_cast<uint8_t>(v >> 8);
  p[2] = static_cast<uint8_t>(v >> 16);
  p[3] = static_cast<uint8_t>(v >> 24);
}

void store64(uint8_t* p, uint64_t v) {
  store32(p, static_cast<uint32_t>(v));
  store32(p + 4, static_cast<uint32_t>(v >> 32));
}

bool isRequestOpcode(uint8_t op) {
  return op >= static_cast<uint8_t>(Opcode::kHello) && op <= static_cast<uint8_t>(Opcode::kEndSession);
}

/// The fixed part of a request's payload; RegWrite and RegRead add the name.
size_t requestFixedPayload(Opcode op) {
  switch (op) {
    case Opcode::kHello:
      return kHelloPayload;
    case Opcode::kGoodbye:
    case Opcode::kEndSession:
    case Opcode::kDdrUnreserveAll:
      return 0;
    case Opcode::kIoWrite:
      return kIoWritePayload;
    case Opcode::kIoRead:
      return kIoReadPayload;
    case Opcode::kRegWrite:
      return kRegWriteFixedPayload;
    case Opcode::kRegRead:
      return kRegReadFixedPayload;
    case Opcode::kDdrReserve:
    case Opcode::kDdrUnreserve:
      return kAddressPayload;
  }
  return 0;
}

size_t replyPayload(Opcode op) {
  switch (op) {
    case Opcode::kHello:
      return kStatusSize + 4;
    case Opcode::kIoRead:
      return kStatusSize + kMaxAccessSize;
    case Opcode::kRegRead:
      return kRegReadReplyPayload;
    case Opcode::kDdrReserve:
      return kStatusSize + 8;
    case Opcode::kIoWrite:
    case Opcode::kRegWrite:
    case Opcode::kDdrUnreserve:
    case Opcode::kDdrUnreserveAll:
      return kStatusSize;
    case Opcode::kGoodbye:
    case Opcode::kEndSession:
      return 0;
  }
  return 0;
}

bool hasName(Opcode op) { return op == Opcode::kRegWrite || op == Opcode::kRegRead; }

void writeHeader(uint8_t* out, uint8_t opcode, uint32_t id, size_t payloadLength) {
  out[0] = kMagic0;
  out[1] = kMagic1;
  out[2] = opcode;
  out[3] = 0;
  store32(out + 4, id);
  store32(out + 8, static_cast<uint32_t>(payloadLength));
}

/// Copies a length-prefixed name at `p` (length byte first) into the request. `available` is
/// the number of payload bytes from `p` to the end of the frame, which must match exactly.
bool readName(const uint8_t* p, size_t available, Request& out) {
  const size_t length = p[0];
  if (length == 0 || length > kMaxRegisterName || available != 1 + length) return false;
  if (std::memchr(p + 1, 0, length) != nullptr) return false;
  std::memcpy(out.name, p + 1, length);
  out.name[length] = '\0';
  out.nameLength = static_cast<uint8_t>(length);
  return true;
}

}  // namespace

bool decodeHeader(const uint8_t* data, size_t size, FrameHeader& out) {
  if (size < kHeaderSize) return false;
  if (data[0] != kMagic0 || data[1] != kMagic1 || data[3] != 0) return false;
  const uint32_t payloadLength = load32(data + 8);
  if (payloadLength > kMaxPayloadSize) return false;
  out.opcode = data[2];
  out.id = load32(data + 4);
  out.payloadLength = payloadLength;
  return true;
}

bool decodeRequest(const uint8_t* data, size_t size, Request& out) {
  FrameHeader header;
  if (!decodeHeader(data, size, header)) return false;
  if (!isRequestOpcode(header.opcode) || size != kHeaderSize + header.payloadLength) return false;

  out = Request();
  out.opcode = static_cast<Opcode>(header.opcode);
  out.id = header.id;
  const uint8_t* p = data + kHeaderSize;
  const size_t fixed = requestFixedPayload(out.opcode);
  if (hasName(out.opcode) ? header.payloadLength <= fixed : header.payloadLength != fixed) return false;

  switch (out.opcode) {
    case Opcode::kHello:
      out.value = load32(p);
      return true;
    case Opcode::kGoodbye:
    case Opcode::kEndSession:
    case Opcode::kDdrUnreserveAll:
      return true;
    case Opcode::kIoWrite:
      out.value = load64(p);
      out.size = load32(p + 8);
      std::memcpy(out.data, p + 12, kMaxAccessSize);
      return out.size <= kMaxAccessSize;
    case Opcode::kIoRead:
      out.value = load64(p);
      out.size = load32(p + 8);
      return out.size <= kMaxAccessSize;
    case Opcode::kRegWrite:
      out.value = load64(p);
      return readName(p + 8, header.payloadLength - 8, out);
    case Opcode::kRegRead:
      return readName(p, header.payloadLength, out);
    case Opcode::kDdrReserve:
    case Opcode::kDdrUnreserve:
      out.value = load64(p);
      return true;
  }
  return false;
}

bool decodeReply(const uint8_t* data, size_t size, Reply& out) {
  FrameHeader header;
  if (!decodeHeader(data, size, header)) return false;
  if ((header.opcode & kReplyBit) == 0) return false;
  const uint8_t op = header.opcode & static_cast<uint8_t>(~kReplyBit);
  if (!isRequestOpcode(op)) return false;
  const size_t payload = replyPayload(static_cast<Opcode>(op));
  if (payload == 0 || header.payloadLength != payload || size != kHeaderSize + payload) return false;

  out = Reply();
  out.opcode = static_cast<Opcode>(op);
  out.id = header.id;
  const uint8_t* p = data + kHeaderSize;
  out.status = static_cast<ReplyStatus>(load32(p));
  switch (out.opcode) {
    case Opcode::kHello:
      out.value = load32(p + kStatusSize);
      break;
    case Opcode::kIoRead:
      std::memcpy(out.data, p + kStatusSize, kMaxAccessSize);
      break;
    case Opcode::kRegRead:
      out.value = load64(p + kStatusSize);
      out.width = p[kStatusSize + 8];
      // A reader stores `width` bytes: a width it could not hold, or none for a register that
      // was read, is malformed.
      return out.width <= kMaxRegisterWidth && (out.width != 0 || out.status != ReplyStatus::kOk);
    case Opcode::kDdrReserve:
      out.value = load64(p + kStatusSize);
      break;
    default:
      break;
  }
  return true;
}

size_t encodeRequest(const Request& request, uint8_t* out, size_t capacity) {
  const uint8_t op = static_cast<uint8_t>(request.opcode);
  if (!isRequestOpcode(op)) return 0;
  size_t payload = requestFixedPayload(request.opcode);
  if (hasName(request.opcode)) {
    const size_t length = request.nameLength;
    if (length == 0 || length > kMaxRegisterName || std::memchr(request.name, 0, length) != nullptr) return 0;
    payload += length;
  }
  if ((request.opcode == Opcode::kIoWrite || request.opcode == Opcode::kIoRead) &&
      request.size > kMaxAccessSize) {
    return 0;
  }
  if (capacity < kHeaderSize + payload) return 0;

  writeHeader(out, op, request.id, payload);
  uint8_t* p = out + kHeaderSize;
  switch (request.opcode) {
    case Opcode::kHello:
      store32(p, static_cast<uint32_t>(request.value));
      break;
    case Opcode::kGoodbye:
    case Opcode::kEndSession:
    case Opcode::kDdrUnreserveAll:
      break;
    case Opcode::kIoWrite:
      store64(p, request.value);
      store32(p + 8, request.size);
      // Bytes past the access size go out as zero whatever the caller left there.
      std::memset(p + 12, 0, kMaxAccessSize);
      std::memcpy(p + 12, request.data, request.size);
      break;
    case Opcode::kIoRead:
      store64(p, request.value);
      store32(p + 8, request.size);
      break;
    case Opcode::kRegWrite:
      store64(p, request.value);
      p[8] = request.nameLength;
      std::memcpy(p + 9, request.name, request.nameLength);
      break;
    case Opcode::kRegRead:
      p[0] = request.nameLength;
      std::memcpy(p + 1, request.name, request.nameLength);
      break;
    case Opcode::kDdrReserve:
    case Opcode::kDdrUnreserve:
      store64(p, request.value);
      break;
  }
  return kHeaderSize + payload;
}

size_t encodeReply(const Reply& reply, uint8_t* out, size_t capacity) {
  const size_t frame = replyFrameSize(reply.opcode);
  if (frame == 0 || capacity < frame) return 0;

  writeHeader(out, static_cast<uint8_t>(static_cast<uint8_t>(reply.opcode) | kReplyBit), reply.id,
              frame - kHeaderSize);
  uint8_t* p = out + kHeaderSize;
  store32(p, static_cast<uint32_t>(reply.status));
  switch (reply.opcode) {
    case Opcode::kHello:
      store32(p + kStatusSize, static_cast<uint32_t>(reply.value));
      break;
    case Opcode::kIoRead:
      std::memcpy(p + kStatusSize, reply.data, kMaxAccessSize);
      break;
    case Opcode::kRegRead:
      store64(p + kStatusSize, reply.value);
      p[kStatusSize + 8] = reply.width;
      break;
    case Opcode::kDdrReserve:
      store64(p + kStatusSize, reply.value);
      break;
    default:
      break;
  }
  return frame;
}

size_t replyFrameSize(Opcode opcode) {
  if (!isRequestOpcode(static_cast<uint8_t>(opcode))) return 0;
  const size_t payload = replyPayload(opcode);
  return payload == 0 ? 0 : kHeaderSize + payload;
}

const char* opcodeName(uint8_t opcode) {
  switch (static_cast<Opcode>(opcode & static_cast<uint8_t>(~kReplyBit))) {
    case Opcode::kHello:
      return "hello";
    case Opcode::kGoodbye:
      return "goodbye";
    case Opcode::kEndSession:
      return "end-session";
    case Opcode::kIoWrite:
      return "io-write";
    case Opcode::kIoRead:
      return "io-read";
    case Opcode::kRegWrite:
      return "reg-write";
    case Opcode::kRegRead:
      return "reg-read";
    case Opcode::kDdrReserve:
      return "ddr-reserve";
    case Opcode::kDdrUnreserve:
      return "ddr-unreserve";
    case Opcode::kDdrUnreserveAll:
      return "ddr-unreserve-all";
  }
  return "unknown";
}

const char* statusName(ReplyStatus status) {
  switch (status) {
    case ReplyStatus::kOk:
      return "ok";
    case ReplyStatus::kDenied:
      return "denied";
    case ReplyStatus::kOutOfMemory:
      return "out of memory";
    case ReplyStatus::kUnknownRegister:
      return "unknown register";
    case ReplyStatus::kInvalidArgument:
      return "invalid argument";
    case ReplyStatus::kNoSpace:
      return "no space";
    case ReplyStatus::kNotReserved:
      return "not reserved";
    case ReplyStatus::kVersionMismatch:
      return "version mismatch";
    case ReplyStatus::kSessionRefused:
      return "session refused";
    case ReplyStatus::kValueTooWide:
      return "value too wide";
    case ReplyStatus::kBusy:
      return "busy";
  }
  return "unknown status";
}

}  // namespace kvx::protocol
