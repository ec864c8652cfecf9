// kvx-ta end to end: the built program as a child process, against the simulator it embeds or
// one that the test starts, judged by its stdout, stderr and exit status. What the plug-in and
// the agent library do with an access is their own tests' business; here, what kvx-ta adds.

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/WireConnection.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/SimProcess.h"

namespace kvx::test {
namespace {

constexpr int kFailure = 1;
constexpr int kUsageError = 2;
const std::string kStarted = "kvx-ta: started kvx-agent-sim on 127.0.0.1:";

std::vector<std::string> words(const std::string& text) {
  std::istringstream in(text);
  return {std::istream_iterator<std::string>(in), std::istream_iterator<std::string>()};
}

/// Runs kvx-ta with `arguments`, after --server naming `sim` if there is one.
ProgramResult kvxTa(const std::string& arguments, const SimProcess* sim = nullptr,
                    const std::string& input = "", const std::vector<std::string>& environment = {}) {
  std::vector<std::string> argv = {KVX_TA_PATH};
  if (sim != nullptr) argv.insert(argv.end(), {"--server", sim->endpoint().text()});
  for (std::string& word : words(arguments)) argv.push_back(std::move(word));
  return runProgram(argv, input, environment);
}

std::string contentOf(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

class KvxTaTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = ::testing::TempDir() + "kvx-ta-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
    m_dir = pattern + "/";
  }
  void TearDown() override { std::filesystem::remove_all(m_dir); }

  /// A scratch file of this test, holding `content`; removed afterwards.
  std::string file(const std::string& name, const std::string& content) {
    std::ofstream(m_dir + name, std::ios::binary) << content;
    return m_dir + name;
  }

  std::string m_dir;
};

TEST_F(KvxTaTest, EachCommandFamilyRoundTripsThroughServer) {
  SimProcess sim({"--quiet"});
  std::string image = "Hello, target!\x7f\x01\xff";
  for (int i = 0; i < 100; ++i) image += static_cast<char>(i * 37);
  const std::string back = m_dir + "back.bin";
  // One kvx-ta run each, in this order, and its stdout.
  const std::pair<std::string, std::string> runs[] = {
      {"write 0x2000 0x1122334455667788 8", ""},
      {"read 0x2000 8", "0x1122334455667788\n"},
      {"read 8194 2", "0x5566\n"},
      {"read 0x2000", "0x55667788\n"},
      {"reg sp 0x7fff0000", ""},
      {"reg sp", "0x000000007fff0000\n"},
      {"unreserve-all", ""},
      // An unaligned start and length: a short head access, aligned accesses, then a tail.
      {"load " + file("image.bin", image) + " 0x10003 --verify", ""},
      {"dump 0x10003 " + std::to_string(image.size()) + " --out " + back, ""},
      {"dump 0x10003 20",
       "00010003:  48 65 6c 6c 6f 2c 20 74  61 72 67 65 74 21 7f 01  |Hello, target!..|\n"
       "00010013:  ff 00 25 4a                                       |..%J|\n"},
      // The last 16 bytes of the address space; above 4 GiB the address column is 64 bits wide.
      {"dump 0xfffffffffffffff0 16",
       "fffffffffffffff0:  00 00 00 00 00 00 00 00  00 00 00 00 00 00 00 00  |................|\n"},
  };
  for (const auto& [command, out] : runs) {
    const ProgramResult result = kvxTa(command, &sim);
    EXPECT_TRUE(result.exitCode == 0 && result.out == out && result.err.find(kStarted) == std::string::npos)
        << "case: " << command << "\n"
        << result;
  }
  EXPECT_TRUE(contentOf(back) == image) << "the dumped file differs from the loaded one";
  const ProgramResult reserved = kvxTa("reserve 256", &sim);
  EXPECT_TRUE(reserved.exitCode == 0 && kvxTa("unreserve " + reserved.out, &sim).exitCode == 0) << reserved;

  // A new run is a new session, so it reaches an agent restarted on the same port.
  if (!sim.restart({"--quiet"})) GTEST_SKIP() << "port " << sim.endpoint().port << " did not come free";
  EXPECT_EQ(kvxTa("read 0x2000 8", &sim).out, "0x0000000000000000\n");
}

TEST_F(KvxTaTest, WithoutServerEachRunStartsASimulatorAndStopsItWhateverTheOutcome) {
  const ProgramResult read = kvxTa("read 0x1000 8");
  EXPECT_TRUE(read.exitCode == 0 && read.out == "0x0000000000000000\n") << read;
  const ProgramResult refused = kvxTa("unreserve 0x1234");
  EXPECT_TRUE(refused.exitCode == kFailure &&
              std::regex_search(refused.err,
                                std::regex(R"(\nkvx-ta: cannot release the block at 0x1234: the agent at )"
                                           R"(127\.0\.0\.1:\d+ refused\n$)")))
      << refused;
  for (const ProgramResult* result : {&read, &refused}) {
    const size_t at = result->err.find(kStarted);
    ASSERT_NE(at, std::string::npos) << *result;
    const int port = std::stoi(result->err.substr(at + kStarted.size()));
    EXPECT_THROW(common::WireConnection({"127.0.0.1", port}), std::runtime_error)
        << "the simulator outlived the run\n"
        << *result;
  }
}

TEST_F(KvxTaTest, ScriptRunsInOneSessionAndStopsAtTheFirstFailingLineWithItsNumber) {
  const ProgramResult failed = kvxTa("script", nullptr,
                                     "# set up, then look\n"
                                     "\n"
                                     "write 0x1000 0xcafe 2\n"
                                     "read 0x1000 2   # the value just written\n"
                                     "reg ra 0x42\n"
                                     "reg ra\n"
                                     "reg r64\n"
                                     "read 0x1000 2\n");
  EXPECT_TRUE(failed.exitCode == kFailure && failed.out == "0xcafe\n0x0000000000000042\n" &&
              failed.err.find("\nkvx-ta: script:7: Cannot read register r64 (TaProcessKVX.cpp:") !=
                  std::string::npos)
      << failed;

  const ProgramResult usage = kvxTa("script " + file("bad-size", "read 0\nread 0 9\nread 0\n"));
  EXPECT_TRUE(usage.exitCode == kUsageError && usage.out == "0x00000000\n" &&
              usage.err.find("\nkvx-ta: script:2: invalid size '9' (1 to 8)\n") != std::string::npos)
      << usage;
}

TEST_F(KvxTaTest, UsageErrorsExitWithTwoAndOneLineNamingTheArgument) {
  // Each command and what its one line of stderr names.
  const std::pair<std::string, std::string> cases[] = {
      {"", "no command given"},
      {"frobnicate", "unknown command 'frobnicate'"},
      {"write 0x10", "write: missing VALUE"},
      {"read 1 2 3", "read: too many arguments"},
      {"read 0x10 9", "invalid size '9' (1 to 8)"},
      {"read 12ab", "invalid address '12ab'"},
      {"read 010", "invalid address '010'"},
      {"read 0x1ffffffffffffffff", "invalid address '0x1ffffffffffffffff' (more than 64 bits)"},
      {"write 0 0x100 1", "invalid value '0x100' (does not fit in 1 byte)"},
      {"dump 0xfffffffffffffff0 17", "run past the end of the 64-bit address space"},
      {"dump 0 16 --bogus", "unrecognised option '--bogus'"},
      {"--server localhost read 0", "invalid server 'localhost'"},
  };
  for (const auto& [command, message] : cases) {
    const ProgramResult r = kvxTa(command);
    EXPECT_TRUE(r.exitCode == kUsageError && r.out.empty() && r.err.rfind("kvx-ta: ", 0) == 0 &&
                r.err.find(message) != std::string::npos && r.err.find('\n') + 1 == r.err.size())
        << "case: " << command << "\n"
        << r;
  }
  for (const char* help : {"--help", "dump --help not-a-number", "--version"}) {
    const ProgramResult result = kvxTa(help);
    EXPECT_TRUE(result.exitCode == 0 && !result.out.empty() && result.err.empty()) << help << "\n" << result;
  }
}

TEST_F(KvxTaTest, FailuresExitWithOneAndTheirMessage) {
  const std::string plugin = R"( \(TaProcessKVX\.cpp:\d+\)\n)";
  const struct {
    std::string agent;  ///< the simulator's options
    std::string command;
    std::string stderrPattern;
  } cases[] = {
      // A refusal leaves the session up: the plug-in's message stands alone.
      {"--deny 0x100:0x10", "read 0x108", "Cannot read address 108 with memory space logger" + plugin},
      {"--refuse-sessions", "read 0",
       R"(cannot open a session with the agent at 127\.0\.0\.1:\d+ \(nothing answers there, )"
       R"(or the agent refused the session\)\n)"},
      // The session lost midway.
      {"--drop-after 20", "dump 0 4096",
       R"(Cannot read address \w+ with memory space logger: the agent at 127\.0\.0\.1:\d+ no longer answers)" +
           plugin},
      {"", "--log-config " + m_dir + "absent read 0", "cannot read log configuration '.*absent': .*\n"},
  };
  for (const auto& c : cases) {
    SimProcess sim(words("--quiet " + c.agent));
    const ProgramResult result = kvxTa(c.command, &sim);
    EXPECT_TRUE(result.exitCode == kFailure &&
                std::regex_match(result.err, std::regex("kvx-ta: " + c.stderrPattern)))
        << "case: " << c.command << "\n"
        << result;
  }
}

TEST_F(KvxTaTest, DemoRunsAndWarnsWhereTheLogConfigurationSays) {
  const std::string log = m_dir + "plugin.log";
  const std::string properties = file("log.properties",
                                      "log4j.rootLogger=WARN, file\n"
                                      "log4j.appender.file=org.apache.log4j.FileAppender\n"
                                      "log4j.appender.file.layout=org.apache.log4j.SimpleLayout\n"
                                      "log4j.appender.file.File=" +
                                          log + "\n");
  const std::string warning = "tesk.ta.kvx: Trying to read more than 64 bits";
  const ProgramResult byDefault = kvxTa("demo");
  EXPECT_TRUE(byDefault.exitCode == 0 && byDefault.out.find("-> WARN " + warning) != std::string::npos &&
              byDefault.err.find("WARN " + warning) != std::string::npos)
      << "warnings go to stderr by default\n"
      << byDefault;

  const ProgramResult byOption = kvxTa("--log-config " + properties + " demo");
  const std::string byOptionLog = contentOf(log);
  std::filesystem::remove(log);
  const ProgramResult byEnvironment = kvxTa("demo", nullptr, "", {"LOG4CXX_CONFIGURATION=" + properties});
  for (const auto& [result, written] :
       {std::pair{&byOption, byOptionLog}, std::pair{&byEnvironment, contentOf(log)}}) {
    EXPECT_EQ(result->exitCode, 0) << *result;
    EXPECT_EQ(result->err.find("WARN"), std::string::npos) << "the file replaces stderr\n" << *result;
    EXPECT_NE(written.find("WARN - Trying to read more than 64 bits"), std::string::npos) << written;
  }
}

}  // namespace
}  // namespace kvx::test
