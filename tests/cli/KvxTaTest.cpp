// kvx-ta end to end: the built program as a child process, against the simulator it embeds or
// one that the test starts, judged by its stdout, stderr and exit status. What the plug-in and
// the agent library do with an access is their own tests' business; here, what kvx-ta adds.

#include <stdlib.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <future>
#include <iterator>
#include <memory>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <zlib.h>
#include <nlohmann/json.hpp>

#include "platform/protocol/AgentProtocol.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/RequestProxy.h"
#include "tests/support/SimProcess.h"
#include "tests/support/WireConnection.h"

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
  char crc[16];
  std::snprintf(crc, sizeof crc, "0x%08lx\n",
                ::crc32(0, reinterpret_cast<const Bytef*>(image.data()), static_cast<uInt>(image.size())));
  std::string filled;
  while (filled.size() < 100) filled += "\x33\x22\x11";
  filled.resize(100);
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
      {"--jobs 3 load " + file("image.bin", image) + " 0x10003 --verify", ""},
      {"dump 0x10003 " + std::to_string(image.size()) + " --out " + back, ""},
      {"--jobs 3 dump 0x10003 " + std::to_string(image.size()) + " --out " + back + "3", ""},
      {"crc32 0x10003 " + std::to_string(image.size()), crc},
      {"--jobs 3 crc32 0x10003 " + std::to_string(image.size()), crc},
      // Each worker's part continues the pattern where the part before it left off.
      {"--jobs 3 fill 0x20001 100 0x112233", ""},
      {"dump 0x20001 100 --out " + back + "fill", ""},
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
  EXPECT_TRUE(contentOf(back) == image && contentOf(back + "3") == image)
      << "a dumped file differs from the loaded one";
  EXPECT_EQ(contentOf(back + "fill"), filled);
  // What the workers report of their progress adds up to the whole range.
  const ProgramResult summed = kvxTa("--jobs 3 crc32 0 0x10000", &sim);
  EXPECT_NE(summed.err.find("kvx-ta: 65536 bytes in "), std::string::npos) << summed;
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
                                std::regex(R"(\nkvx-ta: cannot release the block at 0x1234: 0x1234 is not )"
                                           R"(the start of a reserved block\n$)")))
      << refused;
  for (const ProgramResult* result : {&read, &refused}) {
    const size_t at = result->err.find(kStarted);
    ASSERT_NE(at, std::string::npos) << *result;
    const int port = std::stoi(result->err.substr(at + kStarted.size()));
    EXPECT_THROW(WireConnection({"127.0.0.1", port}), std::runtime_error)
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
              failed.err.find("\nkvx-ta: stdin:7: cannot read register r64: unknown register") !=
                  std::string::npos)
      << failed;

  // A script file is checked whole before its first line runs.
  const std::string badSize = file("bad-size", "read 0\nread 0 9\nread 0\n");
  const ProgramResult usage = kvxTa("script " + badSize);
  EXPECT_TRUE(usage.exitCode == kUsageError && usage.out.empty() &&
              usage.err == "kvx-ta: " + badSize + ":2: invalid size '9' (1 to 8)\n")
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
      {"read 010", "invalid address '010'"},
      {"write 0 0x100 1", "invalid value '0x100' (does not fit in 1 byte)"},
      {"dump 0xfffffffffffffff0 17", "run past the end of the 64-bit address space"},
      {"dump 0 16 --bogus", "unrecognised option '--bogus'"},
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

TEST_F(KvxTaTest, FailuresExitWithOneAndSayWhatWasAttemptedAndWhy) {
  // Why an access failed is the bring-up library's to tell (TargetTest); here, that kvx-ta says it.
  const struct {
    std::string agent;  ///< the simulator's options; kvx-ta's own --server when it starts with '-'
    std::string command;
    std::string stderrPattern;
  } cases[] = {
      {"--server 127.0.0.1:1", "read 0",
       R"(cannot open a session with the agent at 127.0.0.1:1: connection refused: nothing listens on port 1)"},
      {"--deny 0x100:0x10", "write 0xfe 0xffff", "cannot write 4 bytes at 0xfe: access denied: .*"},
      {"", "--log-config " + m_dir + "absent read 0", "cannot read log configuration '.*absent': .*"},
      {"", "wait 0 1 --timeout 100 --size 1", "waited 100 ms for 0x01 at 0x0: the last value read was 0x00"},
  };
  for (const auto& c : cases) {
    const bool ownAgent = c.agent.rfind("--server", 0) != 0;
    std::unique_ptr<SimProcess> sim =
        ownAgent ? std::make_unique<SimProcess>(words("--quiet " + c.agent)) : nullptr;
    const ProgramResult result = kvxTa((ownAgent ? "" : c.agent + " ") + c.command, sim.get());
    EXPECT_TRUE(result.exitCode == kFailure &&
                std::regex_match(result.err, std::regex("kvx-ta: " + c.stderrPattern + "\n")))
        << "case: " << c.command << "\n"
        << result;
  }
}

TEST_F(KvxTaTest, EachAccessAskedForIsOneAgentCallAndTraceShowsThemAll) {
  SimProcess sim({"--quiet"});
  RequestProxy proxy(sim.endpoint());
  const ProgramResult registers =
      kvxTa("--server " + proxy.endpoint().text() + " script", nullptr, "reg pc\nregs\n");
  EXPECT_EQ(registers.exitCode, 0) << registers;
  // One read of pc, then one of each of the 68 registers.
  EXPECT_EQ(proxy.requests(protocol::Opcode::kRegRead).size(), 69u);
  const ProgramResult traced = kvxTa("-q --trace read 0x1000", &sim);
  EXPECT_TRUE(
      traced.exitCode == 0 &&
      std::regex_search(traced.err,
                        std::regex(R"(kvx-ta: agent: start_session\("127\.0\.0\.1", \d+\) = 0  \(\S+ us\)\n)"
                                   R"(kvx-ta: agent: io_read\(0x1000, 4\) = 0  \(\S+ us\)\n$)")))
      << traced;
}

TEST_F(KvxTaTest, OutputsNeverLie) {
  SimProcess sim({"--quiet", "--drop-after", "20"});
  // A failed dump, or one whose worker fails, leaves the file it was to replace as it was, and
  // nothing beside it.
  const std::string out = file("out.bin", "old");
  for (const char* jobs : {"1", "2"}) {
    EXPECT_EQ(kvxTa("--jobs " + std::string(jobs) + " dump 0 4096 --out " + out, &sim).exitCode, kFailure)
        << jobs;
    EXPECT_EQ(contentOf(out), "old");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(m_dir), {}), 1);
  }
  // So does one stopped by Ctrl-C, whose failure says so.
  SimProcess slow({"--quiet", "--latency-us", "200"});
  for (const char* jobs : {"1", "2"}) {
    const ProgramResult stopped = runProgram({KVX_TA_PATH, "--server", slow.endpoint().text(), "--jobs", jobs,
                                              "dump", "0", "0x100000", "--out", out},
                                             "", {}, std::chrono::milliseconds(300));
    EXPECT_TRUE(stopped.exitCode == 130 && stopped.err.find("interrupted (Ctrl-C)") != std::string::npos)
        << stopped;
    EXPECT_EQ(contentOf(out), "old");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(m_dir), {}), 1);
  }
  // Output that cannot be written is a failure.
  const ProgramResult full =
      runProgram({"/bin/sh", "-c", std::string(KVX_TA_PATH) + " -q read 0 >/dev/full"});
  EXPECT_TRUE(full.exitCode == kFailure &&
              full.err == "kvx-ta: cannot write to standard output: No space left on device\n")
      << full;
  // With --json, a result and a failure are an object each; --verbose adds the plug-in's location.
  const ProgramResult json = kvxTa("--json -q script", nullptr, "read 0x1000\nreg nosuch\n");
  EXPECT_EQ(json.out, "{\"address\":\"0x1000\",\"size\":4,\"value\":\"0x00000000\"}\n") << json;
  EXPECT_NE(json.err.find(R"("error":"cannot read register nosuch","file":"stdin","kind":"target","line":2)"),
            std::string::npos)
      << json;
  const ProgramResult verbose = kvxTa("-q --verbose reg nosuch");
  EXPECT_TRUE(std::regex_search(
      verbose.err,
      std::regex(R"(\n  the plug-in: Cannot read register nosuch \(TaProcessKVX\.cpp:\d+\)\n$)")))
      << verbose;
}

TEST_F(KvxTaTest, EveryJsonLineParsesAndCarriesSixtyFourBitValuesExactly) {
  SimProcess sim({"--quiet", "--deny", "0xdead0000:0x100"});
  const std::string bad = file("bad.hex", ":0400000001020304F2\n:00000001FF\n:0100000000FF\n");
  for (const std::string& command : std::vector<std::string>{
           "write64 0x3000 0x1122334455667799", "read 0x3000 8", "read64 0x3000 2", "dump 0x3000 20",
           "crc32 0x3000 16", "search 0x3000 8 0x99", "modify 0x3000 1 --set 1", "regs",
           "load " + bad + " 0x4000", "read 0xdead0010", "read 0 9", "--trace read 0x3000"}) {
    const ProgramResult result = kvxTa("--json " + command, &sim);
    for (const std::string* stream : {&result.out, &result.err}) {
      std::istringstream lines(*stream);
      for (std::string line; std::getline(lines, line);) {
        EXPECT_FALSE(nlohmann::json::parse(line, nullptr, false).is_discarded())
            << "case: " << command << ": not JSON: " << line << "\n"
            << result;
      }
    }
  }
  EXPECT_EQ(kvxTa("--json read 0x3000 8", &sim).out,
            "{\"address\":\"0x3000\",\"size\":8,\"value\":\"0x1122334455667799\"}\n");
}

TEST_F(KvxTaTest, CtrlCEndsAWaitAndAScriptThatWaitsForInput) {
  const ProgramResult waiting = runProgram({KVX_TA_PATH, "-q", "wait", "0", "1", "--timeout", "60000"}, "",
                                           {}, std::chrono::milliseconds(200));
  EXPECT_TRUE(waiting.exitCode == 130 && waiting.err == "kvx-ta: stopped: interrupted (Ctrl-C)\n") << waiting;
  // A script read from a FIFO that a writer holds open but never writes to.
  const std::string fifo = m_dir + "commands";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  const int writer = ::open(fifo.c_str(), O_RDWR);
  const ProgramResult reading =
      runProgram({KVX_TA_PATH, "-q", "script", fifo}, "", {}, std::chrono::milliseconds(200));
  ::close(writer);
  EXPECT_TRUE(reading.exitCode == 130 &&
              reading.err == "kvx-ta: " + fifo + ":1: stopped: interrupted (Ctrl-C)\n")
      << reading;
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
