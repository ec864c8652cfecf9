#include "manager/TaProcessManager.h"

#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <boost/make_shared.hpp>
#include <boost/weak_ptr.hpp>

#include "agent/TaProcessKVX.h"
#include "client/TargetConfig_TaProcessClient.h"
#include "tests/unit/FakeAgent.h"
#include "vorn/ConfigBlock.h"

namespace vorn {
namespace {

using Attribute = boost::shared_ptr<ConfigAttribute>;

Attribute text(const std::string& value) { return boost::make_shared<StringAttribute>(value); }
Attribute number(uint32_t value) { return boost::make_shared<UInt32Attribute>(value); }
Attribute enumeration(std::vector<std::string> values) {
  auto list = boost::make_shared<EnumValueList>();
  list->values = std::move(values);
  return boost::make_shared<EnumAttribute>(list);
}

/// A block that records the names it is asked for.
class RecordingBlock : public ConfigBlock {
 public:
  Attribute getAttribute(const std::string& name) override {
    asked.push_back(name);
    return ConfigBlock::getAttribute(name);
  }
  std::vector<std::string> asked;
};

boost::shared_ptr<RecordingBlock> block(std::initializer_list<std::pair<const char*, Attribute>> attributes) {
  auto result = boost::make_shared<RecordingBlock>();
  for (const auto& [name, attribute] : attributes) result->setAttribute(name, attribute);
  return result;
}

class TaProcessManagerTest : public ::testing::Test {
 protected:
  void SetUp() override { kvx::test::FakeAgent::instance().reset(); }
  TaProcessManager& manager = TaProcessManager::getInstance();
};

TEST_F(TaProcessManagerTest, AdmissionFollowsTheLookupOrderAndComparesExactly) {
  const struct {
    const char* name;
    boost::shared_ptr<ConfigBlock> config;
    int32_t expected;
  } cases[] = {
      {"TaType wins over the enumeration",
       block({{"TaType", text("KVX")}, {"Target Access Method", enumeration({"JTAG"})}}), TA_METHOD_SERVED},
      {"lower case", block({{"TaType", text("kvx")}}), TA_METHOD_NOT_SERVED},
      {"trailing blank", block({{"TaType", text("KVX ")}}), TA_METHOD_NOT_SERVED},
      {"text TaType is final, even when empty",
       block({{"TaType", text("")}, {"Target Access Method", enumeration({"KVX"})}}), TA_METHOD_NOT_SERVED},
      {"TaType of another type falls back",
       block({{"TaType", number(1)}, {"Target Access Method", enumeration({"KVX"})}}), TA_METHOD_SERVED},
      {"only the first enumeration value counts",
       block({{"Target Access Method", enumeration({"JTAG", "KVX"})}}), TA_METHOD_NOT_SERVED},
      {"method as text is not an enumeration", block({{"Target Access Method", text("KVX")}}),
       TA_METHOD_MISSING},
      {"no attributes", block({}), TA_METHOD_MISSING},
      {"enumeration without a list", block({{"Target Access Method", boost::make_shared<EnumAttribute>()}}),
       TA_METHOD_MISSING},
      {"empty attribute pointers", block({{"TaType", nullptr}, {"Target Access Method", nullptr}}),
       TA_METHOD_MISSING},
      {"empty block pointer", nullptr, TA_METHOD_MISSING},
  };
  for (const auto& c : cases) {
    const auto client = boost::make_shared<TargetConfig_TaProcessClient>("id", "", NOTIFICATION_NONE);
    EXPECT_EQ(manager.registerClient(client, c.config), c.expected) << "case: " << c.name;
    EXPECT_EQ(manager.registerClient(nullptr, c.config), c.expected) << "case: " << c.name;
    EXPECT_EQ(manager.unregisterClient("never registered", c.config), c.expected) << "case: " << c.name;
  }
  EXPECT_TRUE(kvx::test::FakeAgent::instance().calls().empty()) << "admission never reaches the agent";

  auto stops = block({{"TaType", text("other")}, {"Target Access Method", enumeration({"KVX"})}});
  manager.registerClient(nullptr, stops);
  EXPECT_EQ(stops->asked, std::vector<std::string>{"TaType"}) << "a text TaType ends the lookup";
}

TEST_F(TaProcessManagerTest, EmptyEnumerationListThrowsAndLeavesItsMutexFree) {
  auto list = boost::make_shared<EnumValueList>();
  auto config = block({{"Target Access Method", boost::make_shared<EnumAttribute>(list)}});
  EXPECT_THROW(manager.registerClient(nullptr, config), std::out_of_range);
  EXPECT_THROW(manager.unregisterClient("x", config), std::out_of_range);
  EXPECT_THROW(manager.getTaProcess("x", config), std::out_of_range);
  ASSERT_TRUE(list->mutex.try_lock()) << "the list's mutex is still held";
  list->mutex.unlock();
  list->values.push_back("KVX");
  EXPECT_EQ(manager.registerClient(nullptr, config), TA_METHOD_SERVED);
}

TEST_F(TaProcessManagerTest, EachServedCallGivesANewProcessOwnedByTheCallerAlone) {
  auto config =
      block({{"TaType", text("KVX")}, {"ServerAddress", text("10.0.0.1")}, {"ServerPort", number(4242)}});
  auto process = manager.getTaProcess("a", config);
  auto other = manager.getTaProcess("b", config);
  ASSERT_TRUE(process && other);
  EXPECT_NE(process.get(), other.get());
  EXPECT_EQ(process.use_count(), 1);
  auto* kvx = dynamic_cast<TaProcessKVX*>(process.get());
  ASSERT_NE(kvx, nullptr);
  EXPECT_EQ(kvx->getLocalConnection(), KVXConnection("10.0.0.1", 4242));
  EXPECT_EQ(kvx::test::FakeAgent::instance().functions(),
            std::vector<kvx::test::Fn>(4, kvx::test::Fn::GetSockStatus))
      << "creation only asks the socket, twice a process";

  boost::weak_ptr<TaProcess> watch = process;
  process.reset();
  EXPECT_TRUE(watch.expired());
}

TEST_F(TaProcessManagerTest, IncompleteOrUnservedBlocksGiveNoProcess) {
  const struct {
    const char* name;
    boost::shared_ptr<ConfigBlock> config;
  } cases[] = {
      {"other method",
       block({{"TaType", text("JTAG")}, {"ServerAddress", text("h")}, {"ServerPort", number(1)}})},
      {"port as text",
       block({{"TaType", text("KVX")}, {"ServerAddress", text("h")}, {"ServerPort", text("80")}})},
      {"address as number",
       block({{"TaType", text("KVX")}, {"ServerAddress", number(1)}, {"ServerPort", number(1)}})},
      {"no port", block({{"TaType", text("KVX")}, {"ServerAddress", text("h")}})},
      {"empty block pointer", nullptr},
  };
  for (const auto& c : cases) EXPECT_FALSE(manager.getTaProcess("name", c.config)) << "case: " << c.name;

  auto missingAddress = block({{"TaType", text("KVX")}});
  manager.getTaProcess("", missingAddress);
  EXPECT_EQ(missingAddress->asked, (std::vector<std::string>{"TaType", "ServerAddress", "ServerPort"}));
  auto unserved = block({{"TaType", text("JTAG")}, {"ServerAddress", text("h")}, {"ServerPort", number(1)}});
  manager.getTaProcess("", unserved);
  EXPECT_EQ(unserved->asked, std::vector<std::string>{"TaType"});
}

TEST_F(TaProcessManagerTest, PortKeepsItsThirtyTwoBitsAndAddressIsPassedUnchanged) {
  const struct {
    std::string address;
    uint32_t port;
    int expectedPort;
  } cases[] = {{"host", 4294967295u, -1},
               {"host", 2147483648u, -2147483647 - 1},
               {"", 0, 0},
               {" [::1] ", 65535, 65535}};
  for (const auto& c : cases) {
    auto process = manager.getTaProcess(
        "",
        block({{"TaType", text("KVX")}, {"ServerAddress", text(c.address)}, {"ServerPort", number(c.port)}}));
    ASSERT_TRUE(process) << "port " << c.port;
    EXPECT_EQ(static_cast<TaProcessKVX&>(*process).getLocalConnection(),
              KVXConnection(c.address, c.expectedPort));
  }
}

}  // namespace
}  // namespace vorn
