#include "agent/TaProcessKVX.h"

#include <array>
#include <cstring>
#include <fstream>
#include <functional>
#include <limits>
#include <locale>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <log4cxx/level.h>

#include "FakeAgent.h"
#include "LogCapture.h"
#include "vorn/Exception.h"

namespace vorn {
namespace {

using kvx::test::Fn;
using kvx::test::LogCapture;

const std::vector<Fn> kSwitch = {Fn::DestroySession, Fn::DestroySession, Fn::GetSockStatus, Fn::StartSession};

std::vector<Fn> switchThen(Fn access) {
  std::vector<Fn> result = kSwitch;
  result.push_back(access);
  return result;
}

ExtAddress at(uint64_t address, const std::string& space = "logger") {
  ExtAddress result;
  result.memorySpace = space;
  result.address = address;
  return result;
}

/// The lines of the process's source file, the first at index 0.
std::vector<std::string> sourceLines() {
  std::ifstream source(TA_KVX_PROCESS_SOURCE);
  std::vector<std::string> lines;
  for (std::string line; std::getline(source, line);) {
    lines.push_back(line);
  }
  return lines;
}

/// The number, counted from 1, of the first source line that holds `text`; 0 when none does.
int lineOf(const std::string& text) {
  const auto lines = sourceLines();
  for (size_t i = 0; i < lines.size(); ++i) {
    if (lines[i].find(text) != std::string::npos) {
      return static_cast<int>(i + 1);
    }
  }
  return 0;
}

class TaProcessKVXTest : public ::testing::Test {
 protected:
  void SetUp() override {
    TaProcessKVX::m_sharedConnection = KVXConnection();
    agent().reset();
  }

  static kvx::test::FakeAgent& agent() { return kvx::test::FakeAgent::instance(); }

  /// A process whose construction calls are already forgotten.
  static std::unique_ptr<TaProcessKVX> process(const std::string& address, int port) {
    auto result = std::make_unique<TaProcessKVX>(address, port);
    agent().clearCalls();
    return result;
  }

  /// A process whose endpoint is the open session, with all calls so far forgotten.
  static std::unique_ptr<TaProcessKVX> activeProcess(const std::string& address = "A", int port = 1) {
    auto result = std::make_unique<TaProcessKVX>(address, port);
    result->activateConnection();
    EXPECT_TRUE(agent().session().open);
    agent().clearCalls();
    return result;
  }

  static uint64_t write(TaProcessKVX& process, const std::vector<uint8_t>& data, size_t count,
                        unsigned unit) {
    EXPECT_TRUE(process.write_mem(at(0x100), count, unit, data.data()));
    return agent().calls().back().value;
  }
};

// ---- Construction and lifecycle ----

TEST_F(TaProcessKVXTest, LoadingTheLibraryMakesNoAgentCall) { EXPECT_EQ(kvx::test::g_callsAtStartup, 0u); }

TEST_F(TaProcessKVXTest, LifecycleAsksOnlyTheSocketAndNeverClosesTheSession) {
  ExtAddress::memorySpaceIds = {"physical", "virtual", "io"};
  auto kvx = std::make_unique<TaProcessKVX>("10.1.2.3", 7000);
  EXPECT_EQ(agent().functions(), (std::vector<Fn>{Fn::GetSockStatus, Fn::GetSockStatus}));
  EXPECT_EQ(ExtAddress::memorySpaceIds, std::vector<std::string>{"logger"});
  EXPECT_EQ(kvx->getLocalConnection(), KVXConnection("10.1.2.3", 7000));
  EXPECT_EQ(TaProcessKVX::m_sharedConnection, KVXConnection()) << "construction opens no session";

  agent().clearCalls();
  std::array<uint8_t, 4> buffer{1, 2, 3, 4};
  EXPECT_FALSE(kvx->read_piped_mem(at(0), 1, 4, buffer.data()));
  EXPECT_FALSE(kvx->callbacksAvailable());
  EXPECT_EQ(kvx->getProcessType(), 1);
  EXPECT_EQ(buffer, (std::array<uint8_t, 4>{1, 2, 3, 4}));

  kvx->activateConnection();
  agent().clearCalls();
  kvx.reset();
  EXPECT_TRUE(agent().calls().empty());
  EXPECT_TRUE(agent().session().open);
  EXPECT_EQ(TaProcessKVX::m_sharedConnection, KVXConnection("10.1.2.3", 7000));
}

// ---- The session switch ----

TEST_F(TaProcessKVXTest, FirstAccessClosesTwiceAsksTheSocketAndOpensItsEndpoint) {
  auto kvx = process("A", 1);
  uint8_t data = 0x5a;
  kvx->write_mem(at(0x10), 1, 1, &data);
  auto calls = agent().calls();
  ASSERT_EQ(agent().functions(), switchThen(Fn::IoWrite));
  EXPECT_EQ(calls[3].text, "A");
  EXPECT_EQ(calls[3].port, 1);
  EXPECT_TRUE(calls[4].sessionOpen);
  EXPECT_EQ(calls[4].sessionAddress, "A");
  EXPECT_EQ(TaProcessKVX::m_sharedConnection, KVXConnection("A", 1));
  EXPECT_TRUE(kvx->getLocalConnection().isActive());
}

TEST_F(TaProcessKVXTest, SameEndpointSharesTheSessionWithoutSessionCalls) {
  auto first = activeProcess("A", 1);
  auto second = process("A", 1);
  uint64_t value = 0;
  first->read_mem(at(0), 1, 8, &value);
  second->write_register("pc", 1, 8, &value);
  first.reset();
  TaProcessKVX third("A", 1);
  third.read_register("pc", 1, 8, &value);
  EXPECT_EQ(agent().functions(),
            (std::vector<Fn>{Fn::IoRead, Fn::RegWrite, Fn::GetSockStatus, Fn::GetSockStatus, Fn::RegRead}))
      << "only the new process's construction asks the socket";
}

TEST_F(TaProcessKVXTest, ProcessWithoutEndpointDoesNotSwitchAfterLoad) {
  auto unset = process("", -1);
  uint8_t byte = 0;
  EXPECT_THROW(unset->read_mem(at(0), 1, 1, &byte), Exception) << "no session is open";
  EXPECT_EQ(agent().functions(), std::vector<Fn>{Fn::IoRead});
}

TEST_F(TaProcessKVXTest, AlternatingEndpointsReopenAtEveryAlternation) {
  auto a = process("A", 1);
  auto b = process("B", 1);
  auto c = process("A", 2);
  uint8_t byte = 0;
  a->read_mem(at(0), 1, 1, &byte);
  b->read_mem(at(0), 1, 1, &byte);
  c->read_mem(at(0), 1, 1, &byte);
  a->read_mem(at(0), 1, 1, &byte);
  std::vector<Fn> expected;
  for (int i = 0; i < 4; ++i) {
    auto step = switchThen(Fn::IoRead);
    expected.insert(expected.end(), step.begin(), step.end());
  }
  EXPECT_EQ(agent().functions(), expected);
  std::vector<std::pair<std::string, int32_t>> opened;
  for (const auto& call : agent().calls()) {
    if (call.fn == Fn::StartSession) {
      opened.emplace_back(call.text, call.port);
    }
  }
  EXPECT_EQ(opened, (std::vector<std::pair<std::string, int32_t>>{{"A", 1}, {"B", 1}, {"A", 2}, {"A", 1}}));
}

TEST_F(TaProcessKVXTest, FailedStartIsNotRetriedUntilAnotherEndpointSwitches) {
  auto a = process("A", 1);
  auto b = process("B", 2);
  uint8_t byte = 0;
  agent().setStatus(Fn::StartSession, -3);
  EXPECT_THROW(a->read_mem(at(0), 1, 1, &byte), Exception);
  EXPECT_EQ(TaProcessKVX::m_sharedConnection, KVXConnection("A", 1));
  EXPECT_FALSE(TaProcessKVX::m_sharedConnection.isActive());

  agent().reset();
  EXPECT_THROW(a->read_mem(at(0), 1, 1, &byte), Exception);
  auto again = process("A", 1);
  EXPECT_THROW(again->write_mem(at(0), 1, 1, &byte), Exception);
  EXPECT_EQ(agent().functions(), (std::vector<Fn>{Fn::IoWrite})) << "only the access itself";

  agent().reset();
  b->read_mem(at(0), 1, 1, &byte);
  a->read_mem(at(0), 1, 1, &byte);
  EXPECT_EQ(agent().session().address, "A") << "the switch through B brought a new attempt for A";
}

TEST_F(TaProcessKVXTest, SetLocalConnectionMakesNoCallAndTheNextAccessSwitches) {
  auto kvx = activeProcess("A", 1);
  kvx->setLocalConnection(KVXConnection("B", 9));
  EXPECT_EQ(agent().calls().size(), 0u);
  EXPECT_EQ(kvx->getLocalConnection(), KVXConnection("B", 9));
  uint8_t byte = 0;
  kvx->read_mem(at(0), 1, 1, &byte);
  EXPECT_EQ(agent().functions(), switchThen(Fn::IoRead));
  EXPECT_EQ(agent().session().address, "B");
  EXPECT_EQ(agent().session().port, 9);
}

// ---- Byte counts, packing and copying ----

TEST_F(TaProcessKVXTest, WriteMemPacksTheFirstBytesLeastSignificantFirst) {
  auto kvx = activeProcess();
  const std::vector<uint8_t> data = {0x34, 0x12, 0x56, 0x78, 0x9a, 0xbc, 0xde, 0xf0, 0x11, 0x22};
  EXPECT_EQ(write(*kvx, data, 1, 2), 0x1234u);
  EXPECT_EQ(agent().calls().back().size, 2u);
  EXPECT_EQ(agent().calls().back().address, 0x100u);
  EXPECT_EQ(write(*kvx, data, 3, 1), 0x561234u);
  EXPECT_EQ(write(*kvx, data, 2, 4), 0xf0debc9a78561234u);
  EXPECT_EQ(agent().calls().back().size, 8u);
}

TEST_F(TaProcessKVXTest, ByteCountIsAWrappingProductCutToEight) {
  auto kvx = activeProcess();
  const std::vector<uint8_t> data(16, 0xff);
  struct Case {
    size_t count;
    unsigned unit;
    uint32_t expectedSize;
  };
  const size_t half = size_t{1} << 63;
  const Case cases[] = {
      {0, 4, 0},
      {4, 0, 0},
      {1, 8, 8},
      {9, 1, 8},
      {3, 3, 8},
      {half, 2, 0},      // wraps to 0
      {half + 1, 2, 2},  // wraps to 2
      {std::numeric_limits<size_t>::max(), std::numeric_limits<unsigned>::max(), 8},
  };
  for (const Case& c : cases) {
    const uint64_t value = write(*kvx, data, c.count, c.unit);
    EXPECT_EQ(agent().calls().back().size, c.expectedSize) << c.count << " x " << c.unit;
    const uint64_t expectedValue =
        c.expectedSize == 8 ? ~uint64_t{0} : (uint64_t{1} << (8 * c.expectedSize)) - 1;
    EXPECT_EQ(value, expectedValue) << c.count << " x " << c.unit;
  }
}

TEST_F(TaProcessKVXTest, ZeroBytesAreStillOneAgentCallEach) {
  auto kvx = activeProcess();
  std::array<uint8_t, 8> buffer{9, 9, 9, 9, 9, 9, 9, 9};
  EXPECT_TRUE(kvx->write_mem(at(0x20), 0, 4, nullptr));
  EXPECT_TRUE(kvx->read_mem(at(0x20), 0, 4, buffer.data()));
  EXPECT_TRUE(kvx->write_register("r1", 0, 8, nullptr));
  EXPECT_TRUE(kvx->read_register("r1", 0, 8, buffer.data()));
  auto calls = agent().calls();
  ASSERT_EQ(calls.size(), 4u);
  EXPECT_EQ(calls[0].value, 0u);
  EXPECT_EQ(calls[0].size, 0u);
  EXPECT_EQ(calls[1].size, 0u);
  EXPECT_EQ(calls[2].value, 0u);
  EXPECT_EQ(calls[3].fn, Fn::RegRead);
  EXPECT_EQ(calls[3].pointer, static_cast<const void*>(buffer.data())) << "whatever the count";
}

TEST_F(TaProcessKVXTest, ReadMemCopiesExactlyTheBytesAskedForEvenOnFailure) {
  auto kvx = activeProcess();
  agent().script([](kvx::test::Script& s) { s.readBytes = {1, 2, 3, 4, 5, 6, 7, 8}; });
  std::array<uint8_t, 12> buffer;
  buffer.fill(0xee);
  EXPECT_TRUE(kvx->read_mem(at(0x40), 3, 1, buffer.data()));
  EXPECT_EQ(buffer, (std::array<uint8_t, 12>{1, 2, 3, 0xee, 0xee, 0xee, 0xee, 0xee, 0xee, 0xee, 0xee, 0xee}));

  buffer.fill(0xee);
  EXPECT_TRUE(kvx->read_mem(at(0x40), 12, 1, buffer.data()));
  EXPECT_EQ(buffer, (std::array<uint8_t, 12>{1, 2, 3, 4, 5, 6, 7, 8, 0xee, 0xee, 0xee, 0xee}));
  EXPECT_EQ(agent().calls().back().size, 8u);

  buffer.fill(0xee);
  agent().setStatus(Fn::IoRead, -2);
  EXPECT_THROW(kvx->read_mem(at(0x40), 1, 2, buffer.data()), Exception);
  EXPECT_EQ(buffer[0], 1);
  EXPECT_EQ(buffer[1], 2);
  EXPECT_EQ(buffer[2], 0xee);
}

TEST_F(TaProcessKVXTest, RegisterWritesAreFullWordsAndReadsGetTheCallersBuffer) {
  auto kvx = activeProcess();
  const uint8_t data[10] = {0xaa, 0xbb, 1, 2, 3, 4, 5, 6, 7, 8};
  EXPECT_TRUE(kvx->write_register("sp", 1, 2, data));
  EXPECT_EQ(agent().calls().back().text, "sp");
  EXPECT_EQ(agent().calls().back().value, 0xbbaau);
  EXPECT_TRUE(kvx->write_register("sp", 10, 1, data));
  EXPECT_EQ(agent().calls().back().value, 0x060504030201bbaau);

  uint64_t wide[2];
  EXPECT_TRUE(kvx->read_register("pc", 2, 8, wide));
  EXPECT_EQ(agent().calls().back().pointer, static_cast<const void*>(wide));
}

// ---- Warnings ----

TEST_F(TaProcessKVXTest, OversizedRequestsWarnOnceEachWithTheirLocation) {
  auto kvx = activeProcess();
  LogCapture capture("tesk.ta.kvx");
  capture.setLevel(log4cxx::Level::getWarn());
  uint8_t data[16] = {};
  kvx->write_mem(at(0), 1, 8, data);
  kvx->read_mem(at(0), 8, 1, data);
  EXPECT_TRUE(capture.records().empty()) << "exactly 8 bytes is no oversized request";

  kvx->write_mem(at(0), 9, 1, data);
  kvx->read_mem(at(0), 3, 3, data);
  kvx->write_register("r0", 1, 9, data);
  kvx->read_register("r0", 2, 8, data);
  auto records = capture.records();
  ASSERT_EQ(records.size(), 4u);
  const char* const messages[] = {"Trying to write more than 64 bits into IO_MAPPED memory once.",
                                  "Trying to read more than 64 bits into IO_MAPPED memory once.",
                                  "Attempt to write more than 64 bits into a register.",
                                  "Attempt to read more than 64 bits from a register."};
  const char* const functions[] = {"write_mem", "read_mem", "write_register", "read_register"};
  for (size_t i = 0; i < records.size(); ++i) {
    EXPECT_EQ(records[i].level, "WARN");
    EXPECT_EQ(records[i].message, messages[i]);
    EXPECT_NE(records[i].fileName.find("TaProcessKVX.cpp"), std::string::npos);
    EXPECT_NE(records[i].methodName.find(functions[i]), std::string::npos) << records[i].methodName;
    EXPECT_EQ(records[i].line, lineOf(messages[i]));
  }
}

TEST_F(TaProcessKVXTest, WarningsOffStillCutTheCount) {
  auto kvx = activeProcess();
  LogCapture capture("tesk.ta.kvx");
  capture.setLevel(log4cxx::Level::getError());
  uint8_t data[16] = {};
  kvx->write_mem(at(0), 16, 1, data);
  EXPECT_TRUE(capture.records().empty());
  EXPECT_EQ(agent().calls().back().size, 8u);
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
  auto kvx = activeProcess();
  uint8_t data[8] = {};
  struct Case {
    Fn fn;
    std::function<void()> access;
    std::string message;
  };
  const Case cases[] = {
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
  const auto lines = sourceLines();
  for (const Case& c : cases) {
    agent().setStatus(c.fn, 1);
    try {
      c.access();
      ADD_FAILURE() << "no exception for: " << c.message;
    } catch (const Exception& e) {
      EXPECT_EQ(e.getMessage(), c.message);
      EXPECT_STREQ(e.what(), c.message.c_str());
      EXPECT_EQ(e.getFile(), "TaProcessKVX.cpp");
      ASSERT_GE(e.getLine(), 1u);
      ASSERT_LE(e.getLine(), lines.size());
      EXPECT_NE(lines[e.getLine() - 1].find("throw Exception"), std::string::npos)
          << "line " << e.getLine() << " is not the throw: " << lines[e.getLine() - 1];
    }
    agent().setStatus(c.fn, 0);
  }
  EXPECT_TRUE(agent().session().open) << "a refusal neither closes nor retries";
}

// ---- Reservations ----

TEST_F(TaProcessKVXTest, ReservationsLabelPhysicalAndReportFailureAsFalse) {
  auto kvx = activeProcess();
  agent().script([](kvx::test::Script& s) { s.reservedAddress = 0x80001000; });
  ExtAddress block = at(0, "logger");
  EXPECT_TRUE(kvx->reserve_mem(256, block));
  EXPECT_EQ(block.memorySpace, "physical");
  EXPECT_EQ(block.address, 0x80001000u);
  EXPECT_EQ(agent().calls().back().value, 256u);
  EXPECT_EQ(agent().calls().back().pointer, static_cast<const void*>(&block.address));

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
  EXPECT_EQ(agent().functions(), (std::vector<Fn>{Fn::DdrReserve, Fn::DdrUnreserve, Fn::DdrReserve,
                                                  Fn::DdrUnreserveAll, Fn::DdrUnreserveAll}));
}

TEST_F(TaProcessKVXTest, ReservationsGoToTheOpenSessionWithoutSwitching) {
  auto open = activeProcess("A", 1);
  auto elsewhere = process("B", 2);
  ExtAddress block;
  EXPECT_TRUE(elsewhere->reserve_mem(64, block));
  EXPECT_TRUE(elsewhere->unreserve_mem(block));
  EXPECT_TRUE(elsewhere->unreserve_all());
  for (const auto& call : agent().calls()) {
    EXPECT_EQ(call.sessionAddress, "A");
  }
  EXPECT_EQ(agent().calls().size(), 3u);
}

}  // namespace
}  // namespace vorn
