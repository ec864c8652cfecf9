// kvx-ta end to end: the built program as a child process, against the simulator it embeds or
// one that the test starts, judged by its stdout, stderr and exit status.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <future>
#include <iterator>
#include <memory>
#include <random>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "tests/cli/ProgramRun.h"
#include "tests/support/SimProcess.h"

namespace kvx::test {
namespace {

using std::chrono::milliseconds;

constexpr int kUsageError = 2;
constexpr int kFailure = 1;
const char* const kStartedPrefix = "kvx-ta: started kvx-agent-sim on 127.0.0.1:";
const std::regex kSummaryLine(R"((verified )?\d+ bytes in \d+\.\d{3} s \(\d+\.\d KiB/s\))");

ProgramResult kvxTa(std::vector<std::string> arguments, std::string input = "",
                    std::vector<std::string> environment = {}) {
  ProgramRun run;
  run.arguments = std::move(arguments);
  run.input = std::move(input);
  run.environment = std::move(environment);
  return runProgram(KVX_TA_PATH, run);
}

/// `arguments` after --server naming `sim`.
std::vector<std::string> at(const SimProcess& sim, std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), {"--server", sim.address() + ":" + std::to_string(sim.port())});
  return arguments;
}

/// The port of the simulator that kvx-ta announced on stderr, or 0.
int embeddedPort(const ProgramResult& result) {
  const size_t at = result.err.find(kStartedPrefix);
  return at == std::string::npos ? 0 : std::stoi(result.err.substr(at + std::strlen(kStartedPrefix)));
}

bool somethingListensOn(int port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const bool connected = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  ::close(fd);
  return connected;
}

/// A loopback port that nothing listened on a moment ago.
int unusedPort() {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
  socklen_t length = sizeof address;
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
  ::close(fd);
  return ntohs(address.sin_port);
}

std::vector<std::string> lines(const std::string& text) {
  std::vector<std::string> result;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) result.push_back(line);
  return result;
}

class KvxTaTest : public ::testing::Test {
 protected:
  void TearDown() override {
    for (const std::string& path : m_files) std::remove(path.c_str());
  }

  /// A path for a scratch file of this test, removed afterwards.
  std::string scratch(const std::string& name) {
    const auto* test = ::testing::UnitTest::GetInstance()->current_test_info();
    m_files.push_back(::testing::TempDir() + "kvx-ta-" + test->name() + "-" + std::to_string(::getpid()) +
                      "-" + name);
    return m_files.back();
  }

  std::string scratchFile(const std::string& name, const std::string& content) {
    const std::string path = scratch(name);
    std::ofstream(path, std::ios::binary) << content;
    return path;
  }

 private:
  std::vector<std::string> m_files;
};

std::string contentOf(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// ---- Commands ----

TEST_F(KvxTaTest, EachCommandRunsOnAnEmbeddedSimulatorThatStopsWithTheRun) {
  struct Case {
    std::vector<std::string> arguments;
    std::string stdoutPattern;
  };
  const std::string image = scratchFile("image", std::string(100, 'x'));
  const Case cases[] = {
      {{"read", "0x1000"}, "0x00000000\n"},
      {{"read", "4096", "1"}, "0x00\n"},
      {{"read", "0x1000", "8"}, "0x0000000000000000\n"},
      {{"write", "0x1000", "0xdeadbeef"}, ""},
      {{"write", "0x1000", "255", "1"}, ""},
      {{"reg", "pc"}, "0x[0-9a-f]{16}\n"},
      {{"reg", "r63", "0xffffffffffffffff"}, ""},
      {{"reserve", "4096"}, "0x[0-9a-f]{16}\n"},
      {{"unreserve-all"}, ""},
      {{"load", image, "0x1001", "--verify"}, ""},
      {{"dump", "0xfffffffffffffff0", "16"},
       "f{15}0:  00 00 00 00 00 00 00 00  00 00 00 00 00 00 00 00  \\|\\.{16}\\|\n"},
  };
  for (const Case& c : cases) {
    const ProgramResult result = kvxTa(c.arguments);
    const std::string command = ::testing::PrintToString(c.arguments);
    ASSERT_EQ(result.exitCode, 0) << command << "\n" << result;
    EXPECT_TRUE(std::regex_match(result.out, std::regex(c.stdoutPattern))) << command << "\n" << result;
    const int port = embeddedPort(result);
    ASSERT_NE(port, 0) << command << "\n" << result;
    EXPECT_FALSE(somethingListensOn(port)) << command << ": the simulator outlived the run";
  }

  // A failure after the simulator started stops it as well.
  const ProgramResult refused = kvxTa({"unreserve", "0x1234"});
  EXPECT_EQ(refused.exitCode, kFailure) << refused;
  EXPECT_NE(refused.err.find("cannot release the block at 0x1234: the agent at 127.0.0.1:"),
            std::string::npos)
      << refused;
  ASSERT_NE(embeddedPort(refused), 0) << refused;
  EXPECT_FALSE(somethingListensOn(embeddedPort(refused)));
}

TEST_F(KvxTaTest, CommandsThroughServerShareItsTargetAcrossRuns) {
  SimProcess sim({"--quiet"});
  ASSERT_EQ(kvxTa(at(sim, {"write", "0x2000", "0x1122334455667788", "8"})).exitCode, 0);
  EXPECT_EQ(kvxTa(at(sim, {"read", "0x2000", "8"})).out, "0x1122334455667788\n");
  EXPECT_EQ(kvxTa(at(sim, {"read", "0x2002", "2"})).out, "0x5566\n");
  ASSERT_EQ(kvxTa(at(sim, {"reg", "sp", "0x7fff0000"})).exitCode, 0);
  EXPECT_EQ(kvxTa(at(sim, {"reg", "sp"})).out, "0x000000007fff0000\n");

  const ProgramResult reserved = kvxTa(at(sim, {"reserve", "256"}));
  ASSERT_EQ(reserved.exitCode, 0) << reserved;
  const std::string block = reserved.out.substr(0, reserved.out.size() - 1);
  EXPECT_EQ(kvxTa(at(sim, {"unreserve", block})).exitCode, 0);
  EXPECT_EQ(kvxTa(at(sim, {"unreserve", block})).exitCode, kFailure);
  EXPECT_EQ(kvxTa(at(sim, {"unreserve-all"})).exitCode, 0);
  EXPECT_EQ(embeddedPort(kvxTa(at(sim, {"read", "0"}))), 0) << "no simulator of its own with --server";
}

TEST_F(KvxTaTest, ServerMayBeNamedOrAnIpv6AddressInBrackets) {
  SimProcess sim({"--quiet"});
  const ProgramResult byName =
      kvxTa({"--server", "localhost:" + std::to_string(sim.port()), "read", "0", "1"});
  EXPECT_EQ(byName.exitCode, 0) << byName;

  std::unique_ptr<SimProcess> v6;
  try {
    v6 = std::make_unique<SimProcess>(std::vector<std::string>{"--quiet", "--bind", "::1"});
  } catch (const std::runtime_error& noIpv6) {
    GTEST_SKIP() << "no IPv6 loopback here: " << noIpv6.what();
  }
  const std::string server = "[::1]:" + std::to_string(v6->port());
  ASSERT_EQ(kvxTa({"--server", server, "write", "0x10", "0x5a", "1"}).exitCode, 0);
  const ProgramResult read = kvxTa({"--server", server, "read", "0x10", "1"});
  EXPECT_EQ(read.out, "0x5a\n") << read;
}

TEST_F(KvxTaTest, LoadWithVerifyThenDumpToFileReturnsTheSameBytes) {
  SimProcess sim({"--quiet"});
  std::string data(64 * 1024, '\0');
  std::mt19937 random(42);
  for (char& c : data) c = static_cast<char>(random());
  const std::string image = scratchFile("image.bin", data);
  const std::string back = scratch("back.bin");

  // An unaligned start: a short head access, aligned accesses, then a tail.
  const ProgramResult load = kvxTa(at(sim, {"load", image, "0x10003", "--verify"}));
  ASSERT_EQ(load.exitCode, 0) << load;
  const std::vector<std::string> loadLines = lines(load.err);
  ASSERT_EQ(loadLines.size(), 2u) << "no progress bar when stderr is no terminal\n" << load;
  EXPECT_TRUE(std::regex_match(loadLines[0], kSummaryLine)) << load;
  EXPECT_EQ(loadLines[0].rfind("65536 bytes in ", 0), 0u) << load;
  EXPECT_EQ(loadLines[1].rfind("verified 65536 bytes in ", 0), 0u) << load;

  const ProgramResult dump = kvxTa(at(sim, {"dump", "0x10003", "65536", "--out", back}));
  ASSERT_EQ(dump.exitCode, 0) << dump;
  EXPECT_EQ(dump.out, "");
  EXPECT_TRUE(std::regex_match(dump.err, std::regex("65536 bytes in .*\n"))) << dump;
  EXPECT_TRUE(contentOf(back) == data) << "the dumped file differs from the loaded one";
}

TEST_F(KvxTaTest, HexDumpShowsSixteenBytesALineWithTheirText) {
  SimProcess sim({"--quiet"});
  ASSERT_EQ(kvxTa(at(sim, {"load",
                           scratchFile("text",
                                       "Hello, target!\n\x01\xff"
                                       "abc"),
                           "0x2000"}))
                .exitCode,
            0);
  const ProgramResult dump = kvxTa(at(sim, {"dump", "0x2000", "20"}));
  ASSERT_EQ(dump.exitCode, 0) << dump;
  EXPECT_EQ(dump.out,
            "00002000:  48 65 6c 6c 6f 2c 20 74  61 72 67 65 74 21 0a 01  |Hello, target!..|\n"
            "00002010:  ff 61 62 63                                       |.abc|\n");

  // Above 4 GiB the address column widens to 64 bits.
  const ProgramResult high = kvxTa(at(sim, {"dump", "0xfffffffc", "8"}));
  EXPECT_EQ(high.out, "00000000fffffffc:  00 00 00 00 00 00 00 00                           |........|\n")
      << high;
}

TEST_F(KvxTaTest, ProgressBarAppearsOnATerminalAndGivesWayToTheSummary) {
  ProgramRun run;
  run.arguments = {"dump", "0", "524288", "--out", scratch("dump.bin")};
  run.stderrOnTerminal = true;
  const ProgramResult result = runProgram(KVX_TA_PATH, run);
  ASSERT_EQ(result.exitCode, 0) << result;
  EXPECT_NE(result.err.find("\rdump ["), std::string::npos) << result;
  // The bar is erased, and the summary starts a line of its own.
  EXPECT_NE(result.err.find("\r\033[K524288 bytes in "), std::string::npos) << result;
}

// ---- Scripts ----

TEST_F(KvxTaTest, ScriptRunsEveryLineInOneSession) {
  const ProgramResult result = kvxTa({"script"},
                                     "# set up, then look\n"
                                     "\n"
                                     "write 0x1000 0xcafe 2\n"
                                     "read 0x1000 2   # the value just written\n"
                                     "reg ra 0x42\n"
                                     "reg ra\n"
                                     "unreserve-all\n"
                                     "dump 0x1000 2\n");
  ASSERT_EQ(result.exitCode, 0) << result;
  EXPECT_EQ(result.out,
            "0xcafe\n"
            "0x0000000000000042\n"
            "00001000:  fe ca                                             |..|\n");
  EXPECT_EQ(result.err.find(kStartedPrefix), result.err.rfind(kStartedPrefix)) << "one simulator only\n"
                                                                               << result;
}

TEST_F(KvxTaTest, ScriptStopsAtTheFirstFailingLineWithItsNumber) {
  const std::string badSize = scratchFile("bad-size", "read 0\n# fine so far\nread 0 9\nread 0\n");
  const ProgramResult usage = kvxTa({"script", badSize});
  EXPECT_EQ(usage.exitCode, kUsageError) << usage;
  EXPECT_EQ(usage.out, "0x00000000\n") << "nothing after the failing line runs\n" << usage;
  EXPECT_NE(usage.err.find("kvx-ta: script:3: invalid size '9' (1 to 8)"), std::string::npos) << usage;

  SimProcess sim({"--quiet", "--deny", "0x100:0x10"});
  const ProgramResult refused =
      kvxTa(at(sim, {"script", "-"}), "write 0x80 1\nwrite 0x108 1\nwrite 0x90 1\n");
  EXPECT_EQ(refused.exitCode, kFailure) << refused;
  EXPECT_NE(refused.err.find("kvx-ta: script:2: Cannot write address 108 with memory space logger"),
            std::string::npos)
      << refused;
  EXPECT_EQ(kvxTa(at(sim, {"read", "0x90", "1"})).out, "0x00\n") << "line 3 must not have run";

  const ProgramResult nested = kvxTa({"script"}, "script\n");
  EXPECT_EQ(nested.exitCode, kUsageError) << nested;
  EXPECT_NE(nested.err.find("script:1: 'script' cannot run inside a script"), std::string::npos) << nested;
}

// ---- Errors ----

TEST_F(KvxTaTest, UsageErrorsExitWithTwoNameTheArgumentAndStartNothing) {
  struct Case {
    std::vector<std::string> arguments;
    std::string message;
  };
  const Case cases[] = {
      {{}, "no command given"},
      {{"frobnicate"}, "unknown command 'frobnicate'"},
      {{"read"}, "read: missing ADDR"},
      {{"write", "0x10"}, "write: missing VALUE"},
      {{"read", "1", "2", "3"}, "read: too many arguments"},
      {{"read", "0x10", "9"}, "invalid size '9' (1 to 8)"},
      {{"read", "0x10", "0"}, "invalid size '0' (1 to 8)"},
      {{"read", "12z"}, "invalid address '12z'"},
      {{"read", "-1"}, "invalid address '-1'"},
      {{"read", "0x"}, "invalid address '0x'"},
      {{"read", "0x1ffffffffffffffff"}, "invalid address '0x1ffffffffffffffff' (more than 64 bits)"},
      {{"write", "0", "0x100", "1"}, "invalid value '0x100' (does not fit in 1 byte)"},
      {{"write", "0", "1", "0x"}, "invalid size '0x'"},
      {{"reserve", "0"}, "invalid size '0'"},
      {{"dump", "0xfffffffffffffff0", "17"}, "run past the end of the 64-bit address space"},
      {{"dump", "0", "16", "--bogus"}, "unrecognised option '--bogus'"},
      {{"load", "file"}, "load: missing ADDR"},
      {{"--server", "localhost", "read", "0"}, "invalid server 'localhost'"},
      {{"--server", "::1:5000", "read", "0"}, "invalid server '::1:5000'"},
      {{"--server", "127.0.0.1:0", "read", "0"}, "invalid server '127.0.0.1:0'"},
      {{"--frobnicate", "read", "0"}, "unrecognised option '--frobnicate'"},
  };
  for (const Case& c : cases) {
    const ProgramResult result = kvxTa(c.arguments);
    const std::string command = ::testing::PrintToString(c.arguments);
    EXPECT_EQ(result.exitCode, kUsageError) << command << "\n" << result;
    EXPECT_EQ(result.err.rfind("kvx-ta: ", 0), 0u) << command << "\n" << result;
    EXPECT_NE(result.err.find(c.message), std::string::npos) << command << "\n" << result;
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << command << "\n" << result;
    EXPECT_EQ(result.out, "") << command;
  }
}

TEST_F(KvxTaTest, HelpAndVersionNeedNoTarget) {
  const ProgramResult help = kvxTa({"--help"});
  EXPECT_EQ(help.exitCode, 0) << help;
  for (const char* command :
       {"read", "write", "reg", "reserve", "unreserve-all", "dump", "load", "script", "demo"}) {
    EXPECT_NE(help.out.find(std::string("\n  ") + command + " "), std::string::npos) << command << "\n"
                                                                                     << help;
  }
  // After the command, --help belongs to the command, whatever else is there.
  const ProgramResult commandHelp = kvxTa({"dump", "--help", "not-a-number"});
  EXPECT_EQ(commandHelp.exitCode, 0) << commandHelp;
  EXPECT_EQ(commandHelp.out.rfind("Usage: kvx-ta dump ADDR LENGTH [--out FILE]\n", 0), 0u) << commandHelp;
  EXPECT_NE(commandHelp.out.find("--out FILE"), std::string::npos) << commandHelp;
  EXPECT_EQ(commandHelp.err, "") << "nothing started for help";

  const ProgramResult version = kvxTa({"--version"});
  EXPECT_EQ(version.exitCode, 0);
  EXPECT_TRUE(std::regex_match(version.out, std::regex("kvx-ta \\d+\\.\\d+\\.\\d+\n"))) << version;
}

TEST_F(KvxTaTest, RefusedAccessExitsWithOneAndThePluginsMessage) {
  SimProcess sim({"--quiet", "--deny", "0x100:0x10"});
  struct Case {
    std::vector<std::string> arguments;
    std::string message;
  };
  const Case cases[] = {
      {{"read", "0x108"}, "kvx-ta: Cannot read address 108 with memory space logger"},
      {{"write", "0xfe", "0xffff"}, "kvx-ta: Cannot write address fe with memory space logger"},
      {{"dump", "0xf8", "32"}, "kvx-ta: Cannot read address 100 with memory space logger"},
      {{"reg", "r64"}, "kvx-ta: Cannot read register r64"},
      {{"reg", "nosuch", "1"}, "kvx-ta: Cannot write register nosuch"},
  };
  for (const Case& c : cases) {
    const ProgramResult result = kvxTa(at(sim, c.arguments));
    const std::string command = ::testing::PrintToString(c.arguments);
    EXPECT_EQ(result.exitCode, kFailure) << command << "\n" << result;
    EXPECT_EQ(result.err.rfind(c.message, 0), 0u) << command << "\n" << result;
    EXPECT_EQ(result.err.find("no longer answers"), std::string::npos) << command << ": the session stays up";
  }
}

TEST_F(KvxTaTest, UnreachableOrRefusingAgentExitsWithOne) {
  const std::string nobody = "127.0.0.1:" + std::to_string(unusedPort());
  const ProgramResult unreachable = kvxTa({"--server", nobody, "read", "0"});
  EXPECT_EQ(unreachable.exitCode, kFailure) << unreachable;
  EXPECT_EQ(unreachable.err.rfind("kvx-ta: cannot open a session with the agent at " + nobody, 0), 0u)
      << unreachable;

  SimProcess refusing({"--quiet", "--refuse-sessions"});
  const ProgramResult refused = kvxTa(at(refusing, {"reserve", "16"}));
  EXPECT_EQ(refused.exitCode, kFailure) << refused;
  EXPECT_NE(refused.err.find("cannot open a session"), std::string::npos) << refused;
}

TEST_F(KvxTaTest, LostOrSilentAgentFailsWithOneWithinTheReplyTimeout) {
  const std::vector<std::string> shortTimeout{"TA_AGENT_TIMEOUT_MS=300"};
  SimProcess dropping({"--quiet", "--drop-after", "20"});
  const ProgramResult dropped = kvxTa(at(dropping, {"dump", "0", "4096"}), "", shortTimeout);
  EXPECT_EQ(dropped.exitCode, kFailure) << dropped;
  EXPECT_NE(dropped.err.find("no longer answers"), std::string::npos) << dropped;

  SimProcess hanging({"--quiet", "--hang-after", "20"});
  const ProgramResult hung =
      kvxTa(at(hanging, {"load", scratchFile("zeros", std::string(4096, '\0')), "0"}), "", shortTimeout);
  EXPECT_EQ(hung.exitCode, kFailure) << hung;
  EXPECT_NE(hung.err.find("Cannot write address"), std::string::npos) << hung;
  EXPECT_NE(hung.err.find("no longer answers"), std::string::npos) << hung;
  EXPECT_LT(hung.elapsed, milliseconds(5000)) << hung;

  // Killed while a long dump runs.
  SimProcess killed({"--quiet"});
  auto running = std::async(std::launch::async, [&] {
    return kvxTa(at(killed, {"dump", "0", "0x10000000", "--out", scratch("killed.bin")}), "", shortTimeout);
  });
  std::this_thread::sleep_for(milliseconds(300));
  killed.kill();
  const ProgramResult lost = running.get();
  EXPECT_EQ(lost.exitCode, kFailure) << lost;
  EXPECT_NE(lost.err.find("no longer answers"), std::string::npos) << lost;
  EXPECT_FALSE(lost.timedOut) << lost;
}

// ---- Demo and logging ----

TEST_F(KvxTaTest, DemoWalksThroughEveryStepAndExitsZero) {
  ProgramRun run;
  run.arguments = {"demo"};
  run.deadline = milliseconds(10000);
  const ProgramResult demo = runProgram(KVX_TA_PATH, run);
  ASSERT_EQ(demo.exitCode, 0) << demo;
  for (const char* shown :
       {"-> 1 TA_METHOD_SERVED", "-> 128 TA_METHOD_NOT_SERVED", "-> 256 TA_METHOD_MISSING", "-> 0xcafef00d",
        "-> 0x0000000000401000", "block at 0x", "-> WARN tesk.ta.kvx: Trying to read more than 64 bits",
        "-> Cannot read address dead0010 with memory space logger", "-> 0x22222222", "-> 0x11111111"}) {
    EXPECT_NE(demo.out.find(shown), std::string::npos) << shown << "\n" << demo;
  }
  // The default log configuration shows the warning on stderr too.
  EXPECT_NE(demo.err.find("WARN tesk.ta.kvx: Trying to read more than 64 bits"), std::string::npos) << demo;
}

TEST_F(KvxTaTest, LogConfigurationComesFromTheOptionOrTheEnvironment) {
  const std::string log = scratch("plugin.log");
  const std::string properties = scratchFile("log.properties",
                                             "log4j.rootLogger=WARN, file\n"
                                             "log4j.appender.file=org.apache.log4j.FileAppender\n"
                                             "log4j.appender.file.File=" +
                                                 log +
                                                 "\n"
                                                 "log4j.appender.file.layout=org.apache.log4j.PatternLayout\n"
                                                 "log4j.appender.file.layout.ConversionPattern=%c %m%n\n");
  const std::string warning = "tesk.ta.kvx Trying to read more than 64 bits";

  const ProgramResult byOption = kvxTa({"--log-config", properties, "demo"});
  ASSERT_EQ(byOption.exitCode, 0) << byOption;
  EXPECT_NE(contentOf(log).find(warning), std::string::npos) << contentOf(log);
  EXPECT_EQ(byOption.err.find("WARN"), std::string::npos) << "the file replaces the stderr default\n"
                                                          << byOption;

  std::remove(log.c_str());
  const ProgramResult byEnvironment = kvxTa({"demo"}, "", {"LOG4CXX_CONFIGURATION=" + properties});
  ASSERT_EQ(byEnvironment.exitCode, 0) << byEnvironment;
  EXPECT_NE(contentOf(log).find(warning), std::string::npos) << contentOf(log);
  EXPECT_EQ(byEnvironment.err.find("WARN"), std::string::npos) << byEnvironment;

  const ProgramResult missing = kvxTa({"--log-config", scratch("absent.properties"), "read", "0"});
  EXPECT_EQ(missing.exitCode, kFailure) << missing;
  EXPECT_NE(missing.err.find("cannot read log configuration"), std::string::npos) << missing;
}

}  // namespace
}  // namespace kvx::test
