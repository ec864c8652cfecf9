// Writes the seed corpus of the fuzz targets: valid frames of every opcode for the two decoders,
// and short client sessions for the request handler that reach its denied ranges, the memory
// limit, the wrap at 2^64 and a full reservation region. Run as
//
//   fuzz_corpus_writer fuzz/corpus
//
// when the protocol changes; the files it writes are kept in the repository.

#include <sys/stat.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "fuzz/FuzzSetup.h"
#include "platform/protocol/AgentProtocol.h"
#include "tests/support/WireConnection.h"

namespace protocol = kvx::protocol;
using protocol::Opcode;
using Bytes = std::vector<uint8_t>;
using kvx::test::encoded;

namespace {

uint32_t g_nextId = 1;

protocol::Request request(Opcode opcode, uint64_t value = 0, uint32_t size = 0, const char* name = nullptr) {
  protocol::Request r;
  r.opcode = opcode;
  r.id = g_nextId++;
  r.value = value;
  r.size = size;
  for (uint32_t i = 0; i < size; ++i) r.data[i] = static_cast<uint8_t>(0x11 * (i + 1));
  if (name != nullptr) {
    r.nameLength = static_cast<uint8_t>(std::strlen(name));
    std::memcpy(r.name, name, r.nameLength);
  }
  return r;
}

/// The frames of `requests`, back to back, as one stream.
Bytes stream(const std::vector<protocol::Request>& requests) {
  Bytes all;
  for (const protocol::Request& r : requests) {
    const Bytes frame = encoded(r);
    all.insert(all.end(), frame.begin(), frame.end());
  }
  return all;
}

bool g_failed = false;

void save(const std::string& directory, const std::string& name, const Bytes& bytes) {
  ::mkdir(directory.c_str(), 0755);
  const std::string path = directory + "/" + name;
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  if (bytes.empty() || !out) {
    std::fprintf(stderr, "fuzz_corpus_writer: cannot write %s\n", path.c_str());
    g_failed = true;
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: fuzz_corpus_writer CORPUS_DIRECTORY\n");
    return 2;
  }
  const std::string root = argv[1];
  ::mkdir(root.c_str(), 0755);

  const protocol::Request hello = request(Opcode::kHello, protocol::kProtocolVersion);
  const std::string requests = root + "/request_decoder";
  save(requests, "hello", encoded(hello));
  save(requests, "goodbye", encoded(request(Opcode::kGoodbye)));
  save(requests, "end-session", encoded(request(Opcode::kEndSession)));
  save(requests, "io-write-8", encoded(request(Opcode::kIoWrite, 0x1000, 8)));
  save(requests, "io-write-3", encoded(request(Opcode::kIoWrite, 0x2001, 3)));
  save(requests, "io-read-4", encoded(request(Opcode::kIoRead, 0x2000, 4)));
  save(requests, "reg-write-pc", encoded(request(Opcode::kRegWrite, 0x401000, 0, "pc")));
  save(requests, "reg-write-r63", encoded(request(Opcode::kRegWrite, ~0ull, 0, "r63")));
  save(requests, "reg-read-sp", encoded(request(Opcode::kRegRead, 0, 0, "sp")));
  save(requests, "ddr-reserve", encoded(request(Opcode::kDdrReserve, 100)));
  save(requests, "ddr-unreserve", encoded(request(Opcode::kDdrUnreserve, kvx::fuzz::kReserveBase)));
  save(requests, "ddr-unreserve-all", encoded(request(Opcode::kDdrUnreserveAll)));

  const std::string replies = root + "/reply_decoder";
  const auto reply = [](Opcode opcode, protocol::ReplyStatus status, uint64_t value = 0, uint8_t width = 0) {
    protocol::Reply r;
    r.opcode = opcode;
    r.id = g_nextId++;
    r.status = status;
    r.value = value;
    r.width = width;
    if (opcode == Opcode::kIoRead) {
      for (uint8_t i = 0; i < protocol::kMaxAccessSize; ++i) r.data[i] = static_cast<uint8_t>(0xA0 + i);
    }
    return r;
  };
  using protocol::ReplyStatus;
  save(replies, "hello", encoded(reply(Opcode::kHello, ReplyStatus::kOk, protocol::kProtocolVersion)));
  save(replies, "hello-refused", encoded(reply(Opcode::kHello, ReplyStatus::kSessionRefused, 1)));
  save(replies, "io-write", encoded(reply(Opcode::kIoWrite, ReplyStatus::kOk)));
  save(replies, "io-write-denied", encoded(reply(Opcode::kIoWrite, ReplyStatus::kDenied)));
  save(replies, "io-read", encoded(reply(Opcode::kIoRead, ReplyStatus::kOk)));
  save(replies, "reg-write", encoded(reply(Opcode::kRegWrite, ReplyStatus::kOk)));
  save(replies, "reg-read", encoded(reply(Opcode::kRegRead, ReplyStatus::kOk, 0x1122334455667788ull, 8)));
  save(replies, "reg-read-ps", encoded(reply(Opcode::kRegRead, ReplyStatus::kOk, 0x11223344, 4)));
  save(replies, "reg-read-unknown", encoded(reply(Opcode::kRegRead, ReplyStatus::kUnknownRegister)));
  save(replies, "ddr-reserve",
       encoded(reply(Opcode::kDdrReserve, ReplyStatus::kOk, kvx::fuzz::kReserveBase)));
  save(replies, "ddr-unreserve", encoded(reply(Opcode::kDdrUnreserve, ReplyStatus::kNotReserved)));
  save(replies, "ddr-unreserve-all", encoded(reply(Opcode::kDdrUnreserveAll, ReplyStatus::kOk)));

  const std::string sessions = root + "/request_handler";
  save(sessions, "write-then-read",
       stream({hello, request(Opcode::kIoWrite, 0x2000, 8), request(Opcode::kIoRead, 0x2000, 8),
               request(Opcode::kIoRead, 0x2004, 4)}));
  save(sessions, "denied",
       stream({hello, request(Opcode::kIoWrite, kvx::fuzz::kDeniedStart - 4, 8),
               request(Opcode::kIoRead, kvx::fuzz::kDeniedStart + kvx::fuzz::kDeniedLength, 8)}));
  save(sessions, "wrap-at-the-top",
       stream({hello, request(Opcode::kIoWrite, 0xFFFFFFFFFFFFFFF0ull, 8), request(Opcode::kIoRead, 0x7, 2),
               request(Opcode::kIoWrite, 0xFFFFFFFFFFFFFFFCull, 8)}));
  save(sessions, "straddling-pages",
       stream({hello, request(Opcode::kIoWrite, 0x2FFC, 8), request(Opcode::kIoRead, 0x2FFE, 4)}));
  save(sessions, "out-of-memory",
       stream({hello, request(Opcode::kIoWrite, 0x10000, 1), request(Opcode::kIoWrite, 0x20000, 1),
               request(Opcode::kIoWrite, 0x30000, 1), request(Opcode::kIoWrite, 0x40000, 1),
               request(Opcode::kIoWrite, 0x50000, 1), request(Opcode::kIoRead, 0x50000, 1)}));
  save(sessions, "registers",
       stream({hello, request(Opcode::kRegWrite, 0x401000, 0, "pc"), request(Opcode::kRegRead, 0, 0, "pc"),
               request(Opcode::kRegWrite, 7, 0, "r64"), request(Opcode::kRegRead, 0, 0, "r07"),
               request(Opcode::kRegWrite, 0xFFFFFFFF, 0, "ps"),
               request(Opcode::kRegWrite, 0x100000000, 0, "ps"), request(Opcode::kRegRead, 0, 0, "ps")}));
  save(sessions, "reservations",
       stream({hello, request(Opcode::kDdrReserve, 100), request(Opcode::kDdrReserve, 1),
               request(Opcode::kDdrUnreserve, kvx::fuzz::kReserveBase), request(Opcode::kDdrReserve, 64),
               request(Opcode::kDdrReserve, kvx::fuzz::kReserveSize), request(Opcode::kDdrReserve, 0),
               request(Opcode::kDdrUnreserveAll), request(Opcode::kDdrReserve, kvx::fuzz::kReserveSize)}));
  return g_failed ? 1 : 0;
}
