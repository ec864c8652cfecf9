// kvx-ta end to end: the built program as a child process, against the simulator it embeds or
// one that the test starts, judged by its stdout, stderr and exit status.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <future>
#include <iterator>
#include <random>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/ChildProcess.h"
#include "tests/support/SimProcess.h"

namespace kvx::test {
namespace {

constexpr int kUsageError = 2;
constexpr int kFailure = 1;
const char* const kStartedPrefix = "kvx-ta: started kvx-agent-sim on 127.0.0.1:";
/// The end of the summary line of a bulk command, after its byte count.
const std::string kSummary = R"( bytes in \d+\.\d{3} s \(\d+\.\d KiB/s\)\n)";

ProgramResult kvxTa(std::vector<std::string> arguments, std::string input = "",
                    std::vector<std::string> environment = {}) {
  arguments.insert(arguments.begin(), KVX_TA_PATH);
  ChildProcess::Options options;
  options.input = std::move(input);
  options.environment = std::move(environment);
  return runProgram(arguments, options);
}

std::vector<std::string> words(const std::string& text) {
  std::istringstream in(text);
  return {std::istream_iterator<std::string>(in), std::istream_iterator<std::string>()};
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

std::string contentOf(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
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
  /// A scratch file holding `content`.
  std::string scratchFile(const std::string& name, const std::string& content) {
    std::ofstream(scratch(name), std::ios::binary) << content;
    return m_files.back();
  }

 private:
  std::vector<std::string> m_files;
};

// ---- Commands ----

TEST_F(KvxTaTest, WithoutServerEachRunStartsASimulatorAndStopsItWhateverTheOutcome) {
  const ProgramResult read = kvxTa({"read", "0x1000", "8"});
  EXPECT_EQ(read.exitCode, 0) << read;
  EXPECT_EQ(read.out, "0x0000000000000000\n") << read;
  const ProgramResult refused = kvxTa({"unreserve", "0x1234"});
  EXPECT_EQ(refused.exitCode, kFailure) << refused;
  EXPECT_NE(refused.err.find("cannot release the block at 0x1234: the agent at 127.0.0.1:"),
            std::string::npos)
      << refused;
  for (const ProgramResult* result : {&read, &refused}) {
    ASSERT_NE(embeddedPort(*result), 0) << *result;
    EXPECT_FALSE(somethingListensOn(embeddedPort(*result))) << "the simulator outlived the run\n" << *result;
  }
}

TEST_F(KvxTaTest, CommandsThroughServerShareItsTargetAcrossRuns) {
  SimProcess sim({"--quiet"});
  const std::string image = scratchFile("image", std::string(100, 'x'));
  // One kvx-ta run each, in this order; the hostname form of the server on one of them.
  const struct {
    std::string command;
    std::string stdoutPattern;
  } runs[] = {
      {"write 0x2000 0x1122334455667788 8", ""},
      {"read 0x2000 8", "0x1122334455667788\n"},
      {"read 8194 2", "0x5566\n"},
      {"read 0x2000", "0x55667788\n"},
      {"write 0x2000 255 1", ""},
      {"--server localhost:" + std::to_string(sim.port()) + " read 0x2000 1", "0xff\n"},
      {"reg sp 0x7fff0000", ""},
      {"reg sp", "0x000000007fff0000\n"},
      {"reg r63 0xffffffffffffffff", ""},
      {"reg r63", "0xffffffffffffffff\n"},
      {"reserve 4096", "0x[0-9a-f]{16}\n"},
      {"unreserve-all", ""},
      {"load " + image + " 0x1001 --verify", ""},
      {"dump 0xfffffffffffffff0 16",
       "f{15}0:  00 00 00 00 00 00 00 00  00 00 00 00 00 00 00 00  \\|\\.{16}\\|\n"},
  };
  for (const auto& run : runs) {
    const ProgramResult result =
        kvxTa(run.command.rfind("--", 0) == 0 ? words(run.command) : at(sim, words(run.command)));
    ASSERT_EQ(result.exitCode, 0) << "case: " << run.command << "\n" << result;
    EXPECT_TRUE(std::regex_match(result.out, std::regex(run.stdoutPattern)))
        << "case: " << run.command << "\n"
        << result;
    EXPECT_EQ(embeddedPort(result), 0)
        << "case: " << run.command << ": no simulator of its own with --server";
  }

  const ProgramResult reserved = kvxTa(at(sim, {"reserve", "256"}));
  ASSERT_EQ(reserved.exitCode, 0) << reserved;
  const std::string block = reserved.out.substr(0, reserved.out.size() - 1);
  EXPECT_EQ(kvxTa(at(sim, {"unreserve", block})).exitCode, 0);
  EXPECT_EQ(kvxTa(at(sim, {"unreserve", block})).exitCode, kFailure);
}

TEST_F(KvxTaTest, ServerMayBeAnIpv6AddressInBrackets) {
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

TEST_F(KvxTaTest, LoadedBytesComeBackFromADumpToAFileAndAsHexWithTheirText) {
  SimProcess sim({"--quiet"});
  std::string data(64 * 1024, '\0');
  std::mt19937 random(42);
  for (char& c : data) c = static_cast<char>(random());
  data.replace(0, 20,
               "Hello, target!\n\x01\xff"
               "abc");
  const std::string back = scratch("back.bin");

  // An unaligned start: a short head access, aligned accesses, then a tail. No progress bar
  // when stderr is no terminal: the summaries only.
  const ProgramResult load = kvxTa(at(sim, {"load", scratchFile("image.bin", data), "0x10003", "--verify"}));
  ASSERT_EQ(load.exitCode, 0) << load;
  EXPECT_TRUE(std::regex_match(load.err, std::regex("65536" + kSummary + "verified 65536" + kSummary)))
      << load;
  const ProgramResult dump = kvxTa(at(sim, {"dump", "0x10003", "65536", "--out", back}));
  ASSERT_EQ(dump.exitCode, 0) << dump;
  EXPECT_EQ(dump.out, "");
  EXPECT_TRUE(std::regex_match(dump.err, std::regex("65536" + kSummary))) << dump;
  EXPECT_TRUE(contentOf(back) == data) << "the dumped file differs from the loaded one";

  // Sixteen bytes a line; above 4 GiB the address column widens to 64 bits.
  EXPECT_EQ(kvxTa(at(sim, {"dump", "0x10003", "20"})).out,
            "00010003:  48 65 6c 6c 6f 2c 20 74  61 72 67 65 74 21 0a 01  |Hello, target!..|\n"
            "00010013:  ff 61 62 63                                       |.abc|\n");
  EXPECT_EQ(kvxTa(at(sim, {"dump", "0xfffffffc", "8"})).out,
            "00000000fffffffc:  00 00 00 00 00 00 00 00                           |........|\n");
}

TEST_F(KvxTaTest, ProgressBarAppearsOnATerminalAndGivesWayToTheSummary) {
  ChildProcess::Options options;
  options.stderrTo = ChildProcess::Stderr::kTerminal;
  const ProgramResult result =
      runProgram({KVX_TA_PATH, "dump", "0", "524288", "--out", scratch("dump.bin")}, options);
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
  const ProgramResult usage =
      kvxTa({"script", scratchFile("bad-size", "read 0\n# fine so far\nread 0 9\nread 0\n")});
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
  const struct {
    std::string command;
    std::string message;
  } cases[] = {
      {"", "no command given"},
      {"frobnicate", "unknown command 'frobnicate'"},
      {"read", "read: missing ADDR"},
      {"write 0x10", "write: missing VALUE"},
      {"read 1 2 3", "read: too many arguments"},
      {"read 0x10 9", "invalid size '9' (1 to 8)"},
      {"read 0x10 0", "invalid size '0' (1 to 8)"},
      {"read 12z", "invalid address '12z'"},
      {"read -1", "invalid address '-1'"},
      {"read 0x", "invalid address '0x'"},
      {"read 0x1ffffffffffffffff", "invalid address '0x1ffffffffffffffff' (more than 64 bits)"},
      {"write 0 0x100 1", "invalid value '0x100' (does not fit in 1 byte)"},
      {"write 0 1 0x", "invalid size '0x'"},
      {"reserve 0", "invalid size '0'"},
      {"dump 0xfffffffffffffff0 17", "run past the end of the 64-bit address space"},
      {"dump 0 16 --bogus", "unrecognised option '--bogus'"},
      {"load file", "load: missing ADDR"},
      {"--server localhost read 0", "invalid server 'localhost'"},
      {"--server ::1:5000 read 0", "invalid server '::1:5000'"},
      {"--server 127.0.0.1:0 read 0", "invalid server '127.0.0.1:0'"},
      {"--frobnicate read 0", "unrecognised option '--frobnicate'"},
  };
  for (const auto& c : cases) {
    const ProgramResult result = kvxTa(words(c.command));
    const std::string context = "case: '" + c.command + "'\n";
    EXPECT_EQ(result.exitCode, kUsageError) << context << result;
    EXPECT_EQ(result.err.rfind("kvx-ta: ", 0), 0u) << context << result;
    EXPECT_NE(result.err.find(c.message), std::string::npos) << context << result;
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << context << result;
    EXPECT_EQ(result.out, "") << context;
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

TEST_F(KvxTaTest, FailuresOnTheTargetOrItsConnectionExitWithOneAndTheirMessage) {
  // What becomes of the agent besides its options: nothing, stopped before the run (so nothing
  // listens on its port), or killed while the run is under way.
  enum class Then { kNothing, kStopFirst, kKillDuringRun };
  const std::string logger = " with memory space logger";
  const std::string plugin = R"( \(TaProcessKVX\.cpp:\d+\)\n)";
  const std::string gone = R"(: the agent at 127\.0\.0\.1:\d+ no longer answers)" + plugin;
  const std::string noSession =
      R"(cannot open a session with the agent at 127\.0\.0\.1:\d+ \(nothing answers )"
      R"(there, or the agent refused the session\)\n)";
  const std::string zeros = scratchFile("zeros", std::string(4096, '\0'));
  const struct {
    const char* name;
    std::string agent;    ///< the simulator's options, separated by spaces
    std::string command;  ///< kvx-ta's arguments after --server, separated by spaces
    std::string stderrPattern;
    Then then = Then::kNothing;
  } cases[] = {
      // Refusals: the session stays up, so the plug-in's message stands alone.
      {"denied read", "--deny 0x100:0x10", "read 0x108", "Cannot read address 108" + logger + plugin},
      {"denied write", "--deny 0x100:0x10", "write 0xfe 0xffff", "Cannot write address fe" + logger + plugin},
      {"dump into a denied range", "--deny 0x100:0x10", "dump 0xf8 32",
       "Cannot read address 100" + logger + plugin},
      {"unknown register read", "", "reg r64", "Cannot read register r64" + plugin},
      {"unknown register write", "", "reg nosuch 1", "Cannot write register nosuch" + plugin},
      // No session at all.
      {"agent refusing sessions", "--refuse-sessions", "reserve 16", noSession},
      {"nobody listening", "", "read 0", noSession, Then::kStopFirst},
      // The session lost midway.
      {"agent dropping the connection", "--drop-after 20", "dump 0 4096",
       "Cannot read address \\w+" + logger + gone},
      {"agent falling silent", "--hang-after 20", "load " + zeros + " 0",
       "Cannot write address \\w+" + logger + gone},
      {"agent killed during a long dump", "", "dump 0 0x10000000 --out " + scratch("killed.bin"),
       "Cannot read address \\w+" + logger + gone, Then::kKillDuringRun},
  };
  for (const auto& c : cases) {
    SimProcess sim(words("--quiet " + c.agent));
    if (c.then == Then::kStopFirst) sim.stop();
    auto running = std::async(std::launch::async, [arguments = at(sim, words(c.command))] {
      return kvxTa(arguments, "", {"TA_AGENT_TIMEOUT_MS=300"});
    });
    if (c.then == Then::kKillDuringRun) {
      std::this_thread::sleep_for(std::chrono::milliseconds(300));
      sim.kill();
    }
    const ProgramResult result = running.get();
    EXPECT_EQ(result.exitCode, kFailure) << "case: " << c.name << "\n" << result;
    EXPECT_TRUE(std::regex_match(result.err, std::regex("kvx-ta: " + c.stderrPattern)))
        << "case: " << c.name << "\n"
        << result;
  }
}

// ---- Demo and logging ----

TEST_F(KvxTaTest, DemoWalksThroughEveryStepAndExitsZero) {
  const ProgramResult demo = kvxTa({"demo"});
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
