// From TaProcessManager::getInstance() to a simulated target and back, through the real agent
// client library over loopback.

#include <array>
#include <cstdint>
#include <string>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include "agent/TaProcessKVX.h"
#include "manager/TaProcessManager.h"
#include "tests/support/SimProcess.h"
#include "vorn/ConfigBlock.h"
#include "vorn/Exception.h"

namespace vorn {
namespace {

using kvx::test::SimProcess;

boost::shared_ptr<ConfigBlock> configFor(const SimProcess& sim) {
  auto config = boost::make_shared<ConfigBlock>();
  config->setAttribute("TaType", boost::make_shared<StringAttribute>("KVX"));
  config->setAttribute("ServerAddress", boost::make_shared<StringAttribute>(sim.address()));
  config->setAttribute("ServerPort", boost::make_shared<UInt32Attribute>(sim.port()));
  return config;
}

boost::shared_ptr<TaProcess> processFor(const SimProcess& sim) {
  auto config = configFor(sim);
  EXPECT_EQ(TaProcessManager::getInstance().registerClient(nullptr, config), TA_METHOD_SERVED);
  auto process = TaProcessManager::getInstance().getTaProcess("core", config);
  EXPECT_TRUE(process);
  return process;
}

ExtAddress at(uint64_t address) {
  ExtAddress result;
  result.memorySpace = "logger";
  result.address = address;
  return result;
}

uint64_t read64(TaProcess& process, uint64_t address) {
  uint64_t value = 0;
  EXPECT_TRUE(process.read_mem(at(address), 1, 8, &value));
  return value;
}

uint64_t readRegister(TaProcess& process, const std::string& name) {
  uint64_t value = 0;
  EXPECT_TRUE(process.read_register(name, 1, 8, &value));
  return value;
}

TEST(EndToEndTest, TwoProcessesOnTwoAgentsKeepTheirOwnMemoryAndRegisters) {
  SimProcess simA({"--quiet"});
  SimProcess simB({"--quiet"});
  auto a = processFor(simA);
  auto b = processFor(simB);
  const uint64_t valueA = 0x1122334455667788, valueB = 0x8877665544332211;
  for (uint64_t address = 0x1000; address < 0x1040; address += 8) {
    ASSERT_TRUE(a->write_mem(at(address), 1, 8, &valueA));
    ASSERT_TRUE(b->write_mem(at(address), 1, 8, &valueB));
  }
  ASSERT_TRUE(a->write_register("pc", 1, 8, &valueA));
  ASSERT_TRUE(b->write_register("pc", 1, 8, &valueB));
  for (uint64_t address = 0x1000; address < 0x1040; address += 8) {
    EXPECT_EQ(read64(*a, address), valueA);
    EXPECT_EQ(read64(*b, address), valueB);
  }
  EXPECT_EQ(readRegister(*a, "pc"), valueA);
  EXPECT_EQ(readRegister(*b, "pc"), valueB);

  // A new process for A, after A's first process is gone, finds A's memory.
  a.reset();
  auto again = processFor(simA);
  EXPECT_EQ(read64(*again, 0x1038), valueA);
}

TEST(EndToEndTest, PartialAndOversizedAccessesMoveExactlyTheirBytes) {
  SimProcess sim({"--quiet"});
  auto process = processFor(sim);
  const std::array<uint8_t, 16> pattern = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
  ASSERT_TRUE(process->write_mem(at(0x2000), 16, 1, pattern.data()));  // cut to 8, with a warning
  EXPECT_EQ(read64(*process, 0x2000), 0x0807060504030201u);
  EXPECT_EQ(read64(*process, 0x2008), 0u) << "nothing past the first 8 bytes is written";

  ASSERT_TRUE(process->write_mem(at(0x2003), 1, 2, pattern.data() + 8));
  std::array<uint8_t, 4> bytes{0xee, 0xee, 0xee, 0xee};
  ASSERT_TRUE(process->read_mem(at(0x2002), 1, 3, bytes.data()));
  EXPECT_EQ(bytes, (std::array<uint8_t, 4>{3, 9, 10, 0xee}));
}

TEST(EndToEndTest, RefusalsReachTheHostAsExceptionsNamingWhatFailed) {
  SimProcess sim({"--quiet", "--deny", "0x3000:16"});
  auto process = processFor(sim);
  uint32_t value = 0;
  try {
    process->read_mem(at(0x3004), 1, 4, &value);
    FAIL() << "a denied read succeeded";
  } catch (const Exception& e) {
    EXPECT_STREQ(e.what(), "Cannot read address 3004 with memory space logger");
    EXPECT_EQ(e.getFile(), "TaProcessKVX.cpp");
  }
  EXPECT_THROW(process->write_mem(at(0x300f), 1, 1, &value), Exception);
  try {
    process->write_register("r64", 1, 8, &value);
    FAIL() << "an unknown register was written";
  } catch (const Exception& e) {
    EXPECT_STREQ(e.what(), "Cannot write register r64");
  }
  // The session survives refusals.
  EXPECT_TRUE(process->write_mem(at(0x3010), 1, 4, &value));
}

TEST(EndToEndTest, ReservationsHandOutDistinctBlocksAndReleaseThem) {
  SimProcess sim({"--quiet"});
  auto process = processFor(sim);
  auto& kvx = static_cast<TaProcessKVX&>(*process);
  uint8_t byte = 0;
  kvx.read_mem(at(0), 1, 1, &byte);  // reservations act on the open session: open it first

  ExtAddress first, second;
  ASSERT_TRUE(kvx.reserve_mem(100, first));
  ASSERT_TRUE(kvx.reserve_mem(100, second));
  EXPECT_EQ(first.memorySpace, "physical");
  EXPECT_NE(first.address, second.address);
  const uint64_t value = 0xfeed;
  EXPECT_TRUE(kvx.write_mem(at(second.address), 1, 8, &value)) << "a reserved block is target memory";

  EXPECT_TRUE(kvx.unreserve_mem(first));
  EXPECT_FALSE(kvx.unreserve_mem(first)) << "a block is released once";
  ExtAddress third;
  ASSERT_TRUE(kvx.reserve_mem(64, third));
  EXPECT_EQ(third.address, first.address) << "first fit reuses the released block";
  EXPECT_TRUE(kvx.unreserve_all());
  EXPECT_FALSE(kvx.unreserve_mem(second));
}

TEST(EndToEndTest, AgentThatIsNotThereFailsTheAccessAndIsNotRetried) {
  int freePort = 0;
  {
    SimProcess probe({"--quiet"});
    freePort = probe.port();
  }
  auto config = boost::make_shared<ConfigBlock>();
  config->setAttribute("TaType", boost::make_shared<StringAttribute>("KVX"));
  config->setAttribute("ServerAddress", boost::make_shared<StringAttribute>("127.0.0.1"));
  config->setAttribute("ServerPort", boost::make_shared<UInt32Attribute>(freePort));
  auto process = TaProcessManager::getInstance().getTaProcess("", config);
  uint64_t value = 0;
  EXPECT_THROW(process->read_mem(at(0), 1, 8, &value), Exception);
  EXPECT_FALSE(TaProcessKVX::m_sharedConnection.isActive());

  // Another endpoint switches away; coming back makes a new attempt, which still fails.
  SimProcess other({"--quiet"});
  auto working = processFor(other);
  EXPECT_TRUE(working->read_mem(at(0), 1, 8, &value));
  EXPECT_THROW(process->read_mem(at(0), 1, 8, &value), Exception);
}

}  // namespace
}  // namespace vorn
