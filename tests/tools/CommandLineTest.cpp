#include "tools/CommandLine.h"

#include <stdlib.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "bringup/Error.h"

namespace kvx::test {
namespace {

cli::Invocation parse(std::vector<const char*> words) {
  words.insert(words.begin(), "kvx-ta");
  return cli::CommandLine::parse(static_cast<int>(words.size()), words.data());
}

TEST(CommandLineTest, GlobalOptionsGoAnywhereButACommandKeepsItsOwn) {
  const cli::Invocation wait =
      parse({"--json", "wait", "0x10", "1", "--timeout", "100", "-q", "--timeout=300"});
  EXPECT_TRUE(wait.output.json && wait.output.quiet);
  EXPECT_EQ(wait.command, "wait");
  // After the command, --timeout is the command's own; --timeout=300 too, the global one only before.
  EXPECT_EQ(wait.arguments, (std::vector<std::string>{"0x10", "1", "--timeout", "100", "--timeout=300"}));
  EXPECT_FALSE(wait.timeoutMs.has_value());
  const cli::Invocation dump = parse({"--timeout", "300", "dump", "0", "16", "--server", "[::1]:5555"});
  EXPECT_EQ(dump.timeoutMs, 300u);
  ASSERT_TRUE(dump.server.has_value());
  EXPECT_EQ(dump.server->host, "::1");
  EXPECT_EQ(dump.arguments, (std::vector<std::string>{"0", "16"}));
}

TEST(CommandLineTest, BadOptionsAreUsageErrorsNamingThem) {
  const struct {
    std::vector<const char*> words;
    std::string message;
  } cases[] = {
      {{"--jobs", "0", "crc32", "0", "8"}, "invalid jobs '0'"},
      {{"--timeout", "3600001", "read", "0"}, "invalid timeout '3600001'"},
      {{"--server", "localhost", "read", "0"}, "invalid server 'localhost'"},
      {{"--server", "127.0.0.1:1", "--sim-option=--deny=0:1", "read", "0"},
       "--sim-option is for the simulator"},
      {{"--elf", "", "read", "0"}, "invalid ELF file ''"},
      {{"--bogus", "read", "0"}, "unrecognised option '--bogus'"},
  };
  for (const auto& c : cases) {
    try {
      parse(c.words);
      ADD_FAILURE() << "case: " << c.message << ": accepted";
    } catch (const bringup::Error& failure) {
      EXPECT_TRUE(failure.kind() == bringup::Error::Kind::kUsage &&
                  std::string(failure.what()).find(c.message) != std::string::npos)
          << "case: " << c.message << "\n"
          << failure.what();
    }
  }
}

TEST(CommandLineTest, TheEnvironmentNamesTheAgentAndTheFirmwareUnlessOptionsDo) {
  ::setenv("KVX_AGENT_SERVER", "127.0.0.1:4000", 1);
  ::setenv("KVX_TA_ELF", "fw.elf", 1);
  const cli::Invocation inherited = parse({"read", "0"});
  const cli::Invocation given = parse({"--server", "127.0.0.1:5000", "--elf", "other.elf", "read", "0"});
  ::unsetenv("KVX_AGENT_SERVER");
  ::unsetenv("KVX_TA_ELF");
  ASSERT_TRUE(inherited.server && given.server);
  EXPECT_EQ(inherited.server->port, 4000);
  EXPECT_EQ(given.server->port, 5000);
  EXPECT_EQ(inherited.elf, "fw.elf");
  EXPECT_EQ(given.elf, "other.elf");
}

}  // namespace
}  // namespace kvx::test
