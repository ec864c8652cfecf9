// kvx-agent-sim: a simulated target agent for tests, demos and benchmarks of the agent client.

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

#include <boost/program_options.hpp>

#include "common/Numbers.h"
#include "sim/Server.h"
#include "sim/SimOptions.h"

namespace po = boost::program_options;

namespace {

constexpr int kUsageError = 2;
/// Ten seconds: a longer latency would only be a typing error.
constexpr uint64_t kLongestLatencyUs = 10'000'000;

/// Decimal, or hexadecimal after "0x"; the whole text must be a number that fits 64 bits.
uint64_t parseNumber(const std::string& text, const char* what) {
  uint64_t value = 0;
  switch (kvx::common::parseUnsigned(text, value)) {
    case kvx::common::NumberError::kNone:
      return value;
    case kvx::common::NumberError::kTooLarge:
      throw std::invalid_argument(std::string("bad ") + what + ": out of range: " + text);
    case kvx::common::NumberError::kMalformed:
      break;
  }
  throw std::invalid_argument(std::string("bad ") + what + ": " + text);
}

/// "START:LENGTH", each a number as parseNumber() takes it, for a range that holds at least one
/// byte and ends at or below 2^64.
kvx::sim::DenyRange parseDenyRange(const std::string& text) {
  const size_t colon = text.find(':');
  if (colon == std::string::npos) throw std::invalid_argument("bad --deny range (START:LENGTH): " + text);
  const kvx::sim::DenyRange range{parseNumber(text.substr(0, colon), "--deny start"),
                                  parseNumber(text.substr(colon + 1), "--deny length")};
  if (range.length == 0)
    throw std::invalid_argument("bad --deny range: a length of 0 denies nothing: " + text);
  if (range.length - 1 > std::numeric_limits<uint64_t>::max() - range.start) {
    throw std::invalid_argument("bad --deny range: it runs past the top of the address space: " + text);
  }
  return range;
}

}  // namespace

int main(int argc, char** argv) {
  po::options_description described("Options");
  // clang-format off
  described.add_options()
    ("help,h", "print this help and exit")
    ("version", "print the version and exit")
    ("bind", po::value<std::string>()->default_value("127.0.0.1"),
     "IPv4 or IPv6 address to listen on, or a host name: its first address")
    ("port", po::value<std::string>()->default_value("0"), "port to listen on; 0 picks a free one")
    ("memory-limit", po::value<std::string>()->default_value("67108864"),
     "most bytes of target memory held; writes needing more are refused")
    ("deny", po::value<std::vector<std::string>>()->composing(),
     "START:LENGTH: refuse reads and writes touching this range (repeatable)")
    ("reserve-base", po::value<std::string>()->default_value("0x80000000"), "start of the reservation region")
    ("reserve-size", po::value<std::string>()->default_value("0x1000000"), "size of the reservation region")
    ("drop-after", po::value<std::string>(), "close each connection after answering N requests (handshake included)")
    ("hang-after", po::value<std::string>(), "stop answering each connection after N requests, keeping it open")
    ("refuse-sessions", "refuse every handshake")
    ("exclusive", "one session at a time: refuse another client's handshake as busy while one is open")
    ("latency-us", po::value<std::string>(), "hold every reply back N microseconds, as a remote agent would")
    ("no-spin", "never poll a busy client for its next request; always wait in the event loop")
    ("quiet", "log nothing on stderr");
  // clang-format on

  kvx::sim::SimOptions options;
  // Everything after "--" is a command to run while serving.
  const int optionCount = static_cast<int>(std::find(argv, argv + argc, std::string("--")) - argv);
  options.command.assign(argv + std::min(optionCount + 1, argc), argv + argc);
  try {
    if (optionCount < argc && options.command.empty()) {
      throw std::invalid_argument("'--' must be followed by a command to run");
    }
    const po::parsed_options parsed = po::parse_command_line(optionCount, argv, described);
    // The parser keeps positional arguments without storing them; one here is most likely a
    // port, which must not be ignored in favour of a random one.
    const std::vector<std::string> positional =
        po::collect_unrecognized(parsed.options, po::include_positional);
    if (!positional.empty()) {
      throw std::invalid_argument("unexpected argument '" + positional.front() +
                                  "': kvx-agent-sim takes options only, and the port goes with --port");
    }
    po::variables_map values;
    po::store(parsed, values);
    po::notify(values);
    if (values.count("help")) {
      std::cout << "Usage: kvx-agent-sim [options] [-- COMMAND [ARGS...]]\n"
                << "Serves a simulated target over the agent protocol and prints\n"
                << "\"listening on ADDRESS:PORT\" once ready. With a COMMAND, serves while it runs\n"
                << "instead, tells it where in KVX_AGENT_SERVER (HOST:PORT), KVX_AGENT_ADDRESS and\n"
                << "KVX_AGENT_PORT, and exits with its status. Numbers are decimal or 0x hexadecimal.\n\n"
                << described;
      return EXIT_SUCCESS;
    }
    if (values.count("version")) {
      std::cout << "kvx-agent-sim " << KVX_AGENT_SIM_VERSION << '\n';
      return EXIT_SUCCESS;
    }
    options.bindAddress = values["bind"].as<std::string>();
    const uint64_t port = parseNumber(values["port"].as<std::string>(), "--port");
    if (port > std::numeric_limits<uint16_t>::max()) throw std::invalid_argument("bad --port: out of range");
    options.port = static_cast<uint16_t>(port);
    options.memoryLimit = parseNumber(values["memory-limit"].as<std::string>(), "--memory-limit");
    if (values.count("deny")) {
      for (const std::string& range : values["deny"].as<std::vector<std::string>>()) {
        options.denied.push_back(parseDenyRange(range));
      }
    }
    options.reserveBase = parseNumber(values["reserve-base"].as<std::string>(), "--reserve-base");
    options.reserveSize = parseNumber(values["reserve-size"].as<std::string>(), "--reserve-size");
    if (options.reserveSize == 0)
      throw std::invalid_argument("bad --reserve-size: 0 leaves nothing to reserve");
    if (values.count("drop-after")) {
      options.dropAfter = parseNumber(values["drop-after"].as<std::string>(), "--drop-after");
    }
    if (values.count("hang-after")) {
      options.hangAfter = parseNumber(values["hang-after"].as<std::string>(), "--hang-after");
    }
    options.refuseSessions = values.count("refuse-sessions") > 0;
    options.exclusive = values.count("exclusive") > 0;
    if (values.count("latency-us")) {
      const uint64_t latency = parseNumber(values["latency-us"].as<std::string>(), "--latency-us");
      if (latency > kLongestLatencyUs) throw std::invalid_argument("bad --latency-us: at most 10 s");
      options.latency = std::chrono::microseconds(latency);
    }
    options.spin = values.count("no-spin") == 0;
    options.quiet = values.count("quiet") > 0;
  } catch (const std::exception& error) {
    std::cerr << "kvx-agent-sim: " << error.what() << " (try 'kvx-agent-sim --help')\n";
    return kUsageError;
  }

  try {
    kvx::sim::Server server(options);
    return server.run();
  } catch (const std::invalid_argument& error) {
    // Options that parse but cannot work together, such as an unaligned reservation base.
    std::cerr << "kvx-agent-sim: " << error.what() << '\n';
    return kUsageError;
  } catch (const std::exception& error) {
    std::cerr << "kvx-agent-sim: " << error.what() << '\n';
    return EXIT_FAILURE;
  }
  return EXIT_SUCCESS;
}
