#include "agent/TaProcessKVX.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <fstream>
#include <functional>
#include <future>
#include <limits>
#include <locale>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <log4cxx/appenderskeleton.h>
#include <log4cxx/level.h>
#include <boost/thread/exceptions.hpp>

#include "common/LogRecorder.h"
#include "tests/unit/FakeAgent.h"
#include "vorn/Exception.h"

namespace vorn {
namespace {

using kvx::test::Fn;

const std::vector<Fn> kSwitch = {Fn::DestroySession, Fn::DestroySession, Fn::GetSockStatus, Fn::StartSession};

ExtAddress at(uint64_t address, const std::string& space = "logger") { return ExtAddress{space, address}; }

/// The number, counted from 1, of the first line of the process's source that holds `text`.
unsigned lineOf(const std::string& text) {
  std::ifstream source(TA_KVX_PROCESS_SOURCE);
  unsigned number = 1;
  for (std::string line; std::getline(source, line); ++number) {
    if (line.find(text) != std::string::npos) return number;
  }
  return 0;
}

/// The source line `number` of the process's source.
std::string sourceLine(unsigned number) {
  std::ifstream source(TA_KVX_PROCESS_SOURCE);
  std::string line;
  while (number-- > 0 && std::getline(source, line)) {
  }
  return line;
}

class TaProcessKVXTest : public ::testing::Test {
 protected:
  void SetUp() override {
    TaProcessKVX::m_sharedConnection = KVXConnection();
    agent().reset();
  }

  static kvx::test::FakeAgent& agent() { return kvx::test::FakeAgent::instance(); }

  /// A process whose construction calls are already forgotten; `open` makes its endpoint the
  /// open session first.
  static std::unique_ptr<TaProcessKVX> process(const std::string& address = "A", int port = 1,
                                               bool open = true) {
    auto result = std::make_unique<TaProcessKVX>(address, port);
    if (open) result->activateConnection();
    agent().clearCalls();
    return result;
  }

  /// The value and byte count that io_write receives for `count` x `unit` bytes of `data`.
  static std::pair<uint64_t, uint32_t> written(TaProcessKVX& kvx, const void* data, size_t count,
                                               unsigned unit) {
    EXPECT_TRUE(kvx.write_mem(at(0x100), count, unit, data));
    return {agent().calls().back().value, agent().calls().back().size};
  }
};

// ---- Construction and lifecycle ----

TEST_F(TaProcessKVXTest, LifecycleAsksOnlyTheSocketAndNeverClosesTheSession) {
  EXPECT_EQ(kvx::test::g_callsAtStartup, 0u) << "loading the library makes no agent call";
  ExtAddress::memorySpaceIds = {"physical", "virtual", "io"};
  auto kvx = std::make_unique<TaProcessKVX>("10.1.2.3", 7000);
  EXPECT_EQ(agent().functions(), (std::vector<Fn>{Fn::GetSockStatus, Fn::GetSockStatus}));
  EXPECT_EQ(ExtAddress::memorySpaceIds, std::vector<std::string>{"logger"});
  EXPECT_EQ(kvx->getLocalConnection(), KVXConnection("10.1.2.3", 7000));
  EXPECT_EQ(TaProcessKVX::m_sharedConnection, KVXConnection()) << "construction opens no session";

  std::array<uint8_t, 4> buffer{1, 2, 3, 4};
  EXPECT_FALSE(kvx->read_piped_mem(at(0), 1, 4, buffer.data()));
  EXPECT_EQ(buffer, (std::array<uint8_t, 4>{1, 2, 3, 4}));
  EXPECT_FALSE(kvx->callbacksAvailable());
  EXPECT_EQ(kvx->getProcessType(), 1);

  kvx->activateConnection();
  agent().clearCalls();
  kvx.reset();
  EXPECT_TRUE(agent().calls().empty());
  EXPECT_TRUE(agent().session().open);
  EXPECT_EQ(TaProcessKVX::m_sharedConnection, KVXConnection("10.1.2.3", 7000));
}

// ---- The session switch ----

TEST_F(TaProcessKVXTest, FirstAccessClosesTwiceAsksTheSocketAndOpensItsEndpoint) {
  auto kvx = process("A", 1, false);
  uint8_t data = 0x5a;
  kvx->write_mem(at(0x10), 1, 1, &data);
  std::vector<Fn> expected = kSwitch;
  expected.push_back(Fn::IoWrite);
  ASSERT_EQ(agent().functions(), expected);
  EXPECT_EQ(agent().calls()[3].text, "A");
  EXPECT_EQ(agent().calls()[3].port, 1);
  EXPECT_EQ(agent().calls()[4].session.address, "A") << "the access arrives in the new session";
  EXPECT_EQ(TaProcessKVX::m_sharedConnection, KVXConnection("A", 1));
  EXPECT_TRUE(kvx->getLocalConnection().isActive());
}

TEST_F(TaProcessKVXTest, TheSessionSwitchesExactlyWhenTheEndpointDiffers) {
  auto a = process("A", 1);
  auto sameAsA = process("A", 1, false);
  auto b = process("B", 1, false);
  auto otherPort = process("A", 2, false);
  uint64_t word = 0;
  a->read_mem(at(0), 1, 1, &word);
  sameAsA->write_register("pc", 1, 8, &word);
  b->read_mem(at(0), 1, 1, &word);
  otherPort->read_mem(at(0), 1, 1, &word);
  a.reset();
  TaProcessKVX("A", 1).read_register("pc", 1, 8, &word);

  std::vector<std::pair<std::string, int32_t>> opened;
  size_t accesses = 0;
  for (const auto& call : agent().calls()) {
    if (call.fn == Fn::StartSession) opened.emplace_back(call.text, call.port);
    if (call.fn == Fn::IoRead || call.fn == Fn::RegRead || call.fn == Fn::RegWrite) ++accesses;
  }
  EXPECT_EQ(opened, (std::vector<std::pair<std::string, int32_t>>{{"B", 1}, {"A", 2}, {"A", 1}}));
  EXPECT_EQ(accesses, 5u);
}

TEST_F(TaProcessKVXTest, FailedStartIsNotRetriedUntilAnotherEndpointSwitches) {
  auto a = process("A", 1, false);
  auto b = process("B", 2, false);
  uint8_t byte = 0;
  agent().setStatus(Fn::StartSession, -3);
  EXPECT_THROW(a->read_mem(at(0), 1, 1, &byte), Exception);
  EXPECT_EQ(TaProcessKVX::m_sharedConnection, KVXConnection("A", 1));
  EXPECT_FALSE(TaProcessKVX::m_sharedConnection.isActive());

  agent().reset();
  EXPECT_THROW(a->read_mem(at(0), 1, 1, &byte), Exception);
  EXPECT_EQ(agent().functions(), (std::vector<Fn>{Fn::IoRead})) << "only the access itself";

  b->read_mem(at(0), 1, 1, &byte);
  a->read_mem(at(0), 1, 1, &byte);
  EXPECT_EQ(agent().session().address, "A") << "the switch through B brought a new attempt for A";
}

TEST_F(TaProcessKVXTest, SetLocalConnectionMakesNoCallAndTheNextAccessSwitches) {
  auto kvx = process("A", 1);
  kvx->setLocalConnection(KVXConnection("B", 9));
  EXPECT_TRUE(agent().calls().empty());
  EXPECT_EQ(kvx->getLocalConnection(), KVXConnection("B", 9));
  uint8_t byte = 0;
  kvx->read_mem(at(0), 1, 1, &byte);
  EXPECT_EQ(agent().session().address, "B");
  EXPECT_EQ(agent().session().port, 9);
}

// ---- Byte counts, packing and copying ----

TEST_F(TaProcessKVXTest, WritesPackTheFirstBytesLeastSignificantFirst) {
  auto kvx = process();
  const uint8_t data[10] = {0x34, 0x12, 0x56, 0x78, 0x9a, 0xbc, 0xde, 0xf0, 0x11, 0x22};
  EXPECT_EQ(written(*kvx, data, 1, 2), std::make_pair(uint64_t{0x1234}, 2u));
  EXPECT_EQ(agent().calls().back().address, 0x100u);
  EXPECT_EQ(written(*kvx, data, 3, 1), std::make_pair(uint64_t{0x561234}, 3u));
  EXPECT_EQ(written(*kvx, data, 2, 4), std::make_pair(uint64_t{0xf0debc9a78561234}, 8u));

  EXPECT_TRUE(kvx->write_register("sp", 1, 2, data));
  EXPECT_EQ(agent().calls().back().text, "sp");
  EXPECT_EQ(agent().calls().back().value, 0x1234u) << "a full word, zero above the data";
  EXPECT_TRUE(kvx->write_register("sp", 10, 1, data));
  EXPECT_EQ(agent().calls().back().value, 0xf0debc9a78561234u) << "cut to its first 8 bytes";
  EXPECT_TRUE(kvx->write_register("sp", 0, 8, nullptr));
  EXPECT_EQ(agent().calls().back().value, 0u);
}

TEST_F(TaProcessKVXTest, ByteCountIsAWrappingSixtyFourBitProductCutToEight) {
  auto kvx = process();
  const std::vector<uint8_t> data(16, 0xff);
  const size_t half = size_t{1} << 63;
  const struct {
    size_t count;
    unsigned unit;
    uint32_t expected;
  } cases[] = {
      {0, 4, 0},
      {4, 0, 0},
      {1, 8, 8},
      {9, 1, 8},
      {3, 3, 8},
      {half, 2, 0},                   // 2^64 wraps to 0
      {half + 1, 2, 2},               // 2^64 + 2 wraps to 2
      {(size_t{1} << 32) + 3, 1, 8},  // kept to 32 bits it would be 3
      {size_t{1} << 31, 2, 8},        // kept to 32 bits it would be 0
      {std::numeric_limits<size_t>::max(), std::numeric_limits<unsigned>::max(), 8},
  };
  for (const auto& c : cases) {
    const auto [value, size] = written(*kvx, data.data(), c.count, c.unit);
    EXPECT_EQ(size, c.expected) << c.count << " x " << c.unit;
    EXPECT_EQ(value, c.expected == 8 ? ~uint64_t{0} : (uint64_t{1} << (8 * c.expected)) - 1)
        << c.count << " x " << c.unit;
  }
}

TEST_F(TaProcessKVXTest, ReadsHandOverExactlyTheBytesAskedForEvenOnFailure) {
  auto kvx = process();
  agent().setReadBytes({1, 2, 3, 4, 5, 6, 7, 8});
  std::array<uint8_t, 12> buffer;
  buffer.fill(0xee);
  EXPECT_TRUE(kvx->read_mem(at(0x40), 3, 1, buffer.data()));
  EXPECT_EQ(buffer, (std::array<uint8_t, 12>{1, 2, 3, 0xee, 0xee, 0xee, 0xee, 0xee, 0xee, 0xee, 0xee, 0xee}));
  EXPECT_EQ(agent().calls().back().address, 0x40u);

  buffer.fill(0xee);
  EXPECT_TRUE(kvx->read_mem(at(0x40), 12, 1, buffer.data()));
  EXPECT_EQ(buffer, (std::array<uint8_t, 12>{1, 2, 3, 4, 5, 6, 7, 8, 0xee, 0xee, 0xee, 0xee}));
  EXPECT_EQ(agent().calls().back().size, 8u);

  buffer.fill(0xee);
  agent().setStatus(Fn::IoRead, -2);
  EXPECT_THROW(kvx->read_mem(at(0x40), 1, 2, buffer.data()), Exception);
  EXPECT_EQ(buffer,
            (std::array<uint8_t, 12>{1, 2, 0xee, 0xee, 0xee, 0xee, 0xee, 0xee, 0xee, 0xee, 0xee, 0xee}));

  // A register read hands the caller's buffer through, whatever the count.
  for (size_t count : {0, 1, 2}) {
    EXPECT_TRUE(kvx->read_register("pc", count, 8, buffer.data()));
    EXPECT_EQ(agent().calls().back().pointer, static_cast<const void*>(buffer.data()));
  }
}

// ---- Warnings ----

/// What the plug-in logs while it lives, one record a line: level, message, file, function and
/// line, separated by '|'. WARN is enabled on its logger, or with `enabled` false, disabled.
class Warnings {
 public:
  explicit Warnings(bool enabled = true) {
    m_logger->setLevel(enabled ? log4cxx::Level::getWarn() : log4cxx::Level::getError());
  }
  ~Warnings() { m_logger->setLevel(m_saved); }
  std::vector<std::string> records() const { return m_recorder.lines(); }

 private:
  log4cxx::LoggerPtr m_logger = log4cxx::Logger::getLogger("tesk.ta.kvx");
  log4cxx::LevelPtr m_saved = m_logger->getLevel();
  kvx::common::LogRecorder m_recorder{"tesk.ta.kvx", "%p|%m|%F|%M|%L%n"};
};

TEST_F(TaProcessKVXTest, OversizedRequestsWarnOnceEachWithTheirLocation) {
  auto kvx = process();
  Warnings capture;
  uint8_t data[16] = {};
  kvx->write_mem(at(0), 1, 8, data);
  kvx->read_mem(at(0), 8, 1, data);
  EXPECT_TRUE(capture.records().empty()) << "exactly 8 bytes is no oversized request";

  kvx->write_mem(at(0), 9, 1, data);
  kvx->read_mem(at(0), 3, 3, data);
  kvx->write_register("r0", 1, 9, data);
  kvx->read_register("r0", 2, 8, data);
  const std::pair<const char*, const char*> expected[] = {
      {"Trying to write more than 64 bits into IO_MAPPED memory once.", "write_mem"},
      {"Trying to read more than 64 bits into IO_MAPPED memory once.", "read_mem"},
      {"Attempt to write more than 64 bits into a register.", "write_register"},
      {"Attempt to read more than 64 bits from a register.", "read_register"}};
  const auto records = capture.records();
  ASSERT_EQ(records.size(), 4u);
  for (size_t i = 0; i < records.size(); ++i) {
    const auto [message, function] = expected[i];
    // The location names the source relative to the tree: binaries carry no build machine's path.
    const std::string where = "|" + std::string(message) + "|agent/TaProcessKVX.cpp|";
    EXPECT_EQ(records[i].rfind("WARN" + where, 0), 0u) << records[i];
    EXPECT_NE(records[i].find(function), std::string::npos) << records[i];
    EXPECT_EQ(records[i].substr(records[i].rfind('|') + 1), std::to_string(lineOf(message))) << records[i];
  }
}

TEST_F(TaProcessKVXTest, WarningsOffStillCutTheCount) {
  auto kvx = process();
  Warnings capture(false);
  uint8_t data[16] = {};
  kvx->write_mem(at(0), 16, 1, data);
  EXPECT_TRUE(capture.records().empty());
  EXPECT_EQ(agent().calls().back().size, 8u);
}

/// An appender as a GUI host might write one: it annotates each record with a register read
/// through the plug-in, and keeps the error that read met.
class RegisterReadingAppender : public log4cxx::AppenderSkeleton {
 public:
  explicit RegisterReadingAppender(TaProcessKVX& process) : m_process(process) {}
  void close() override {}
  bool requiresLayout() const override { return false; }
  std::vector<int> errors() const { return m_errors; }

 protected:
  void append(const log4cxx::spi::LoggingEventPtr& /*event*/, log4cxx::helpers::Pool& /*pool*/) override {
    uint64_t pc = 0;
    try {
      m_process.read_register("pc", 1, 8, &pc);
      m_errors.push_back(0);
    } catch (const boost::lock_error& e) {
      m_errors.push_back(e.code().value());
    }
  }

 private:
  TaProcessKVX& m_process;
  std::vector<int> m_errors;
};

// The warning is logged while the access holds the session lock; the appender's access, made on
// the same thread, would wait for it forever.
TEST_F(TaProcessKVXTest, AppenderThatCallsThePluginGetsALockErrorAndTheLoggingAccessCompletes) {
  auto kvx = process();
  Warnings enabled;
  auto appender = std::make_shared<RegisterReadingAppender>(*kvx);
  const log4cxx::LoggerPtr logger = log4cxx::Logger::getLogger("tesk.ta.kvx");
  logger->addAppender(appender);
  std::packaged_task<bool()> oversizedRead([&kvx] {
    uint8_t data[16] = {};
    return kvx->read_mem(at(0), 16, 1, data);
  });
  std::future<bool> done = oversizedRead.get_future();
  // Detached, so that a read that hangs fails this test instead of holding up the whole program.
  std::thread(std::move(oversizedRead)).detach();
  ASSERT_EQ(done.wait_for(std::chrono::seconds(10)), std::future_status::ready) << "the access hangs";
  logger->removeAppender(appender);
  EXPECT_TRUE(done.get());
  EXPECT_EQ(appender->errors(), std::vector<int>{EDEADLK});
  EXPECT_EQ(agent().functions(), std::vector<Fn>{Fn::IoRead}) << "the appender's read reached no agent";
}

// ---- Failures ----

/// Groups digits in threes, as the locales that user-facing hosts install globally often do.
struct DigitGrouping : std::numpunct<char> {
  char do_thousands_sep() const override { return ','; }
  std::string do_grouping() const override { return "\3"; }
};

TEST_F(TaProcessKVXTest, RefusedAccessesThrowTheirMessageFromTheThrowingLine) {
  // Messages read the same whatever locale the host has made global.
  struct GlobalLocale {
    std::locale saved = std::locale::global(std::locale(std::locale::classic(), new DigitGrouping));
    ~GlobalLocale() { std::locale::global(saved); }
  } grouping;
  auto kvx = process();
  uint8_t data[8] = {};
  const struct {
    Fn fn;
    std::function<void()> access;
    std::string message;
  } cases[] = {
      {Fn::IoWrite, [&] { kvx->write_mem(at(4096, "physical"), 1, 4, data); },
       "Cannot write address 1000 with memory space physical"},
      {Fn::IoRead, [&] { kvx->read_mem(at(0, "logger"), 1, 4, data); },
       "Cannot read address 0 with memory space logger"},
      {Fn::IoRead, [&] { kvx->read_mem(at(~uint64_t{0}, ""), 1, 4, data); },
       "Cannot read address ffffffffffffffff with memory space "},
      {Fn::IoWrite, [&] { kvx->write_mem(at(0x123ABCDEF, "data"), 1, 4, data); },
       "Cannot write address 123abcdef with memory space data"},
      {Fn::RegWrite, [&] { kvx->write_register("r63", 1, 8, data); }, "Cannot write register r63"},
      {Fn::RegRead, [&] { kvx->read_register("no such", 1, 8, data); }, "Cannot read register no such"},
  };
  for (const auto& c : cases) {
    agent().setStatus(c.fn, 1);
    try {
      c.access();
      ADD_FAILURE() << "no exception for: " << c.message;
    } catch (const Exception& e) {
      EXPECT_EQ(e.getMessage(), c.message);
      EXPECT_STREQ(e.what(), c.message.c_str());
      EXPECT_EQ(e.getFile(), "TaProcessKVX.cpp");
      EXPECT_NE(sourceLine(e.getLine()).find("throw Exception"), std::string::npos)
          << "line " << e.getLine() << " is not the throw: " << sourceLine(e.getLine());
    }
    agent().setStatus(c.fn, 0);
  }
  EXPECT_TRUE(agent().session().open) << "a refusal neither closes nor retries";
}

// ---- Reservations ----

TEST_F(TaProcessKVXTest, ReservationsLabelPhysicalAndReportFailureAsFalse) {
  auto kvx = process();
  agent().setReservedAddress(0x80001000);
  ExtAddress block = at(0, "logger");
  EXPECT_TRUE(kvx->reserve_mem(256, block));
  EXPECT_EQ(block.memorySpace, "physical");
  EXPECT_EQ(block.address, 0x80001000u);
  EXPECT_EQ(agent().calls().back().value, 256u);

  ExtAddress other = at(0x1234, "virtual");
  agent().setStatus(Fn::DdrUnreserve, 5);
  EXPECT_FALSE(kvx->unreserve_mem(other));
  EXPECT_EQ(other.memorySpace, "physical");
  EXPECT_EQ(agent().calls().back().address, 0x1234u);

  agent().setStatus(Fn::DdrReserve, 5);
  ExtAddress failed = at(77, "x");
  EXPECT_FALSE(kvx->reserve_mem(1, failed));
  EXPECT_EQ(failed.memorySpace, "physical");
  EXPECT_EQ(failed.address, 77u) << "left as the agent left it";

  EXPECT_TRUE(kvx->unreserve_all());
  agent().setStatus(Fn::DdrUnreserveAll, -1);
  EXPECT_FALSE(kvx->unreserve_all());
}

TEST_F(TaProcessKVXTest, ReservationsGoToTheOpenSessionWithoutSwitching) {
  auto open = process("A", 1);
  auto elsewhere = process("B", 2, false);
  ExtAddress block;
  EXPECT_TRUE(elsewhere->reserve_mem(64, block));
  EXPECT_TRUE(elsewhere->unreserve_mem(block));
  EXPECT_TRUE(elsewhere->unreserve_all());
  EXPECT_EQ(agent().functions(), (std::vector<Fn>{Fn::DdrReserve, Fn::DdrUnreserve, Fn::DdrUnreserveAll}));
  for (const auto& call : agent().calls()) EXPECT_EQ(call.session.address, "A");
}

}  // namespace
}  // namespace vorn
