// The wire protocol between the agent client library and a target agent: frame layout, opcodes,
// statuses and limits, with pure encoders and decoders that both sides share.
//
// Every function here is stateless, allocation-free and safe to call from any thread. The two
// decoders take untrusted bytes from the network and never read outside [data, data + size);
// they are the entry points for fuzzing. docs/agent-protocol.md describes the same format in prose.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kvx::protocol {

// ---- Framing ----
//
// Every frame is a 12-byte header followed by a payload, all integers little-endian:
//
//   offset  size  field
//   0       2     magic, the bytes 'K' 'A'
//   2       1     opcode; a reply carries its request's opcode with kReplyBit set
//   3       1     reserved, zero
//   4       4     request id, chosen by the client and echoed in the reply
//   8       4     payload length in bytes, at most kMaxPayloadSize
//
// Each opcode has a fixed payload length (RegWrite and RegRead: fixed plus the name), so a
// receiver knows from the header alone how many bytes to wait for and can refuse an oversized
// frame before buffering any of it.

constexpr uint8_t kMagic0 = 'K';
constexpr uint8_t kMagic1 = 'A';
constexpr size_t kHeaderSize = 12;

/// The protocol version a client announces in Hello and an agent in its reply; each side refuses
/// any other. Hello and its reply keep their layout in every version, so that both sides can
/// always tell a mismatch from a malformed frame.
constexpr uint32_t kProtocolVersion = 3;

/// Register names travel as a length byte and 1 to kMaxRegisterName bytes, no NUL.
constexpr size_t kMaxRegisterName = 63;
/// A memory access moves at most this many bytes.
constexpr uint32_t kMaxAccessSize = 8;
/// A register is 1 to this many bytes wide; a RegRead reply says how wide.
constexpr uint8_t kMaxRegisterWidth = 8;

/// The largest payload of any frame (RegWrite: value, name length, longest name).
constexpr size_t kMaxPayloadSize = 8 + 1 + kMaxRegisterName;
/// No valid frame is longer; receivers reject a header announcing more before reading further.
constexpr size_t kMaxFrameSize = kHeaderSize + kMaxPayloadSize;

constexpr uint8_t kReplyBit = 0x80;

enum class Opcode : uint8_t {
  kHello = 0x01,            ///< u32 version -> u32 status, u32 agent version
  kGoodbye = 0x02,          ///< (empty); no reply, the agent closes the connection
  kIoWrite = 0x03,          ///< u64 address, u32 size, u8[8] data -> u32 status
  kIoRead = 0x04,           ///< u64 address, u32 size -> u32 status, u8[8] data
  kRegWrite = 0x05,         ///< u64 value, u8 name length, name -> u32 status
  kRegRead = 0x06,          ///< u8 name length, name -> u32 status, u64 value, u8 width
  kDdrReserve = 0x07,       ///< u64 size -> u32 status, u64 address
  kDdrUnreserve = 0x08,     ///< u64 address -> u32 status
  kDdrUnreserveAll = 0x09,  ///< (empty) -> u32 status
  /// (empty); no reply. The session ends and the connection stays open; the next request on it,
  /// Hello or another, opens a session again.
  kEndSession = 0x0A,
};

/// The agent's answer to a request; every reply payload starts with one.
enum class ReplyStatus : uint32_t {
  kOk = 0,
  kDenied = 1,           ///< the address range is closed to accesses
  kOutOfMemory = 2,      ///< the agent will not hold more target memory
  kUnknownRegister = 3,  ///< no register of that name
  kInvalidArgument = 4,  ///< e.g. a reservation of size 0
  kNoSpace = 5,          ///< no free block large enough for the reservation
  kNotReserved = 6,      ///< the address does not start a reserved block
  kVersionMismatch = 7,  ///< Hello with a version the agent does not speak
  kSessionRefused = 8,   ///< the agent accepts no session at all
  kValueTooWide = 9,     ///< RegWrite: the value has bits set above the register's width
  kBusy = 10,            ///< Hello: the agent admits one session at a time, and another is open
};

// ---- Messages ----
//
// Plain structs with fixed-size members only: decoding fills one on the stack, nothing else.
// Fields that an opcode does not use are zero after decoding and ignored by encoding.

struct Request {
  Opcode opcode = Opcode::kHello;
  uint32_t id = 0;
  /// Hello: the client's version. IoWrite, IoRead, DdrUnreserve: the target address.
  /// DdrReserve: the size asked for. RegWrite: the value.
  uint64_t value = 0;
  /// IoWrite, IoRead: the byte count, 0 to kMaxAccessSize.
  uint32_t size = 0;
  /// IoWrite: the bytes to write, in target memory order; bytes past `size` are sent as zero.
  uint8_t data[kMaxAccessSize] = {};
  /// RegWrite, RegRead: the register name, `nameLength` bytes followed by a NUL.
  uint8_t nameLength = 0;
  char name[kMaxRegisterName + 1] = {};
};

struct Reply {
  /// The request's opcode, without kReplyBit. Never kGoodbye or kEndSession.
  Opcode opcode = Opcode::kHello;
  uint32_t id = 0;
  /// Any value may arrive; kOk is the only success.
  ReplyStatus status = ReplyStatus::kOk;
  /// Hello: the agent's version. RegRead: the register's value. DdrReserve: the block's address.
  uint64_t value = 0;
  /// IoRead: the bytes read, in target memory order; bytes past the request's size are zero.
  uint8_t data[kMaxAccessSize] = {};
  /// RegRead: the register's width in bytes, 1 to kMaxRegisterWidth on success, 0 on a refusal.
  uint8_t width = 0;
};

/// The fields every frame starts with, as decodeHeader() finds them.
struct FrameHeader {
  uint8_t opcode = 0;  ///< raw, kReplyBit included
  uint32_t id = 0;
  uint32_t payloadLength = 0;
};

// ---- Decoding ----

/// Reads the header at `data`. Returns false when `size` < kHeaderSize, the magic or the reserved
/// byte is wrong, or the payload length exceeds kMaxPayloadSize; the opcode is not checked. A
/// stream reader calls this as soon as kHeaderSize bytes are in, then waits for
/// kHeaderSize + payloadLength bytes in all.
bool decodeHeader(const uint8_t* data, size_t size, FrameHeader& out);

/// Decodes one request frame occupying exactly `size` bytes at `data`. Returns false, leaving
/// `out` unspecified, for anything but a well-formed request: a bad header, a reply or unknown
/// opcode, a payload length other than the opcode's, trailing bytes, an access size above
/// kMaxAccessSize, or a register name that is empty, too long or contains a NUL.
bool decodeRequest(const uint8_t* data, size_t size, Request& out);

/// Decodes one reply frame occupying exactly `size` bytes at `data`. Returns false, leaving `out`
/// unspecified, for a bad header, a request opcode, a reply to Goodbye, to EndSession or an unknown opcode, a
/// payload length other than the opcode's, trailing bytes, or a RegRead reply whose width is
/// above kMaxRegisterWidth, or 0 with status kOk. The status is not checked otherwise.
bool decodeReply(const uint8_t* data, size_t size, Reply& out);

// ---- Encoding ----

/// Writes `request` as one frame into `out` and returns its length, or 0 (nothing usable
/// written) when `capacity` is too small or the request could not be decoded back: an access
/// size above kMaxAccessSize, a register name that is empty, longer than kMaxRegisterName or
/// holds a NUL before `nameLength`, or an unknown opcode. kMaxFrameSize always suffices.
size_t encodeRequest(const Request& request, uint8_t* out, size_t capacity);

/// Writes `reply` as one frame into `out` and returns its length, or 0 when `capacity` is too
/// small or the opcode has no reply. The fields are written as they are, a width that the
/// decoder would refuse included. kMaxFrameSize always suffices.
size_t encodeReply(const Reply& reply, uint8_t* out, size_t capacity);

/// The length of the reply frame to `opcode` (kHeaderSize plus the fixed payload), or 0 for
/// kGoodbye, kEndSession and unknown opcodes.
size_t replyFrameSize(Opcode opcode);

/// A short lower-case name for logs ("io-read"), or "unknown".
const char* opcodeName(uint8_t opcode);

/// A short lower-case description for logs ("denied"), or "unknown status".
const char* statusName(ReplyStatus status);

}  // namespace kvx::protocol
