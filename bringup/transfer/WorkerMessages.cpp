#include "bringup/transfer/WorkerMessages.h"

#include <cstdio>

#include <nlohmann/json.hpp>

#include "bringup/Numbers.h"

namespace kvx::bringup {
namespace {

using nlohmann::json;

const char* const kDone = "done";
const char* const kError = "error";
const char* const kReason = "reason";
const char* const kKind = "kind";
const char* const kCrc32 = "crc32";
const char* const kMatches = "matches";
const char* const kHead = "head";
const char* const kTail = "tail";

Error::Kind kindNamed(const std::string& name) {
  for (Error::Kind kind : {Error::Kind::kUsage, Error::Kind::kTarget, Error::Kind::kConnection,
                           Error::Kind::kFile, Error::Kind::kInterrupted}) {
    if (name == Error::kindName(kind)) return kind;
  }
  return Error::Kind::kTarget;
}

/// `words`, and the access width when there is one.
std::vector<std::string> withWidth(std::vector<std::string> words, unsigned width) {
  if (width != 0) words.insert(words.end(), {"--width", std::to_string(width)});
  return words;
}

}  // namespace

std::vector<std::string> workerOptions(const common::Endpoint& agent, std::optional<unsigned> timeoutMs,
                                       bool force) {
  std::vector<std::string> options{"--worker", "--server", agent.text()};
  if (timeoutMs) options.insert(options.end(), {"--timeout", std::to_string(*timeoutMs)});
  if (force) options.push_back("--force");
  return options;
}

std::vector<std::string> dumpPartCommand(const Range& part, unsigned width) {
  return withWidth({"dump", hexAddress(part.address), std::to_string(part.length), "--out", "-"}, width);
}

std::vector<std::string> fillPartCommand(const Range& part, const std::vector<uint8_t>& pattern,
                                         unsigned width) {
  // The pattern as kvx-ta reads it: hex digits, most significant byte first, as wide as written.
  std::string text = "0x";
  for (size_t i = pattern.size(); i-- > 0;) text += hexPadded(pattern[i], 2).substr(2);
  return withWidth({"fill", hexAddress(part.address), std::to_string(part.length), text}, width);
}

std::vector<std::string> crc32PartCommand(const Range& part, unsigned width) {
  return withWidth({"crc32", hexAddress(part.address), std::to_string(part.length)}, width);
}

std::vector<std::string> searchPartCommand(const Range& part, const std::vector<uint8_t>& pattern,
                                           unsigned width) {
  return withWidth(
      {"search", hexAddress(part.address), std::to_string(part.length), "--bytes", hexBytes(pattern)}, width);
}

std::vector<std::string> imagePartCommand(const char* command, const std::vector<std::string>& imageWords,
                                          const Range& part) {
  std::vector<std::string> words{command};
  words.insert(words.end(), imageWords.begin(), imageWords.end());
  words.insert(words.end(), {"--part", partOption(part)});
  return words;
}

std::string partOption(const Range& part) { return hexAddress(part.address) + ":" + hexAddress(part.last()); }

std::optional<Range> parsePartOption(const std::string& text) {
  const size_t colon = text.find(':');
  uint64_t first = 0;
  uint64_t last = 0;
  if (colon == std::string::npos || !parseUnsigned(text.substr(0, colon), first) ||
      !parseUnsigned(text.substr(colon + 1), last) || last < first) {
    return std::nullopt;
  }
  // A part that ends at the top of the address space holds 2^64 - first bytes: its length wraps
  // to 0 only when it covers everything, which no split produces.
  return Range{first, last - first + 1};
}

std::string progressMessage(uint64_t bytes) { return json{{kDone, bytes}}.dump() + "\n"; }

std::string failureMessage(const Error& error) {
  json message{{kError, error.attempted()},
               {kReason, error.reason().empty() ? std::string(Error::kindName(error.kind())) + " error"
                                                : error.reason()},
               {kKind, Error::kindName(error.kind())}};
  if (error.location()) {
    message["file"] = error.location()->file;
    message["line"] = error.location()->line;
  }
  if (error.call()) {
    message["call"] = error.call()->name;
    message["status"] = error.call()->status;
  }
  return message.dump() + "\n";
}

std::string searchMessage(const SearchResult& result) {
  json matches = json::array();
  for (uint64_t match : result.matches) matches.push_back(hexAddress(match));
  return json{{kMatches, matches}, {kHead, hexBytes(result.head)}, {kTail, hexBytes(result.tail)}}.dump() +
         "\n";
}

std::string crc32Message(uint32_t crc) { return json{{kCrc32, hexPadded(crc, 8)}}.dump() + "\n"; }

WorkerMessage parseWorkerMessage(const std::string& line) {
  WorkerMessage message;
  const json object = json::parse(line, nullptr, false);
  if (!object.is_object()) return message;
  if (object.contains(kDone) && object[kDone].is_number_unsigned())
    message.progress = object[kDone].get<uint64_t>();
  if (object.contains(kError) && object[kError].is_string()) {
    message.failure = Error(kindNamed(object.value(kKind, "")), object[kError].get<std::string>(),
                            object.value(kReason, ""));
  }
  uint64_t crc = 0;
  if (object.contains(kCrc32) && object[kCrc32].is_string() &&
      parseUnsigned(object[kCrc32].get<std::string>(), crc) && crc <= UINT32_MAX) {
    message.crc32 = static_cast<uint32_t>(crc);
  }
  if (object.contains(kMatches) && object[kMatches].is_array() && object.contains(kHead) &&
      object.contains(kTail)) {
    SearchResult result;
    for (const json& match : object[kMatches]) {
      uint64_t address = 0;
      if (match.is_string() && parseUnsigned(match.get<std::string>(), address))
        result.matches.push_back(address);
    }
    const auto head =
        object[kHead].is_string() ? parseHexBytes(object[kHead].get<std::string>()) : std::nullopt;
    const auto tail =
        object[kTail].is_string() ? parseHexBytes(object[kTail].get<std::string>()) : std::nullopt;
    if (head && tail) {
      result.head = *head;
      result.tail = *tail;
      message.search = std::move(result);
    }
  }
  return message;
}

void WorkerProgress::advance(uint64_t bytes) {
  m_unreported += bytes;
  if (Clock::now() - m_lastReport >= std::chrono::milliseconds(100)) report();
}

void WorkerProgress::finish() { report(); }

void WorkerProgress::report() {
  m_lastReport = Clock::now();
  if (m_unreported == 0) return;
  const std::string line = progressMessage(m_unreported);
  std::fwrite(line.data(), 1, line.size(), stderr);
  std::fflush(stderr);
  m_unreported = 0;
}

}  // namespace kvx::bringup
