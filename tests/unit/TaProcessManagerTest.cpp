#include "manager/TaProcessManager.h"

#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <boost/make_shared.hpp>
#include <boost/thread/mutex.hpp>
#include <boost/weak_ptr.hpp>

#include "FakeAgent.h"
#include "agent/TaProcessKVX.h"
#include "client/TargetConfig_TaProcessClient.h"
#include "vorn/ConfigBlock.h"

namespace vorn {
namespace {

using Block = boost::shared_ptr<ConfigBlock>;

boost::shared_ptr<ConfigAttribute> text(const std::string& value) {
  return boost::make_shared<StringAttribute>(value);
}

boost::shared_ptr<ConfigAttribute> number(uint32_t value) {
  return boost::make_shared<UInt32Attribute>(value);
}

boost::shared_ptr<ConfigAttribute> enumeration(std::vector<std::string> values) {
  auto list = boost::make_shared<EnumValueList>();
  list->values = std::move(values);
  return boost::make_shared<EnumAttribute>(list);
}

/// A block whose enumeration attribute counts how often its list is asked for.
class CountingEnumAttribute : public EnumAttribute {
 public:
  using EnumAttribute::EnumAttribute;
  boost::shared_ptr<EnumValueList> getValues() override {
    ++calls;
    return EnumAttribute::getValues();
  }
  int calls = 0;
};

/// A block that records the names it is asked for.
class RecordingBlock : public ConfigBlock {
 public:
  boost::shared_ptr<ConfigAttribute> getAttribute(const std::string& name) override {
    asked.push_back(name);
    return ConfigBlock::getAttribute(name);
  }
  std::vector<std::string> asked;
};

Block block(std::initializer_list<std::pair<const char*, boost::shared_ptr<ConfigAttribute>>> attributes) {
  auto result = boost::make_shared<RecordingBlock>();
  for (const auto& attribute : attributes) {
    result->setAttribute(attribute.first, attribute.second);
  }
  return result;
}

Block servedBlock(const std::string& address, uint32_t port) {
  return block({{"TaType", text("KVX")}, {"ServerAddress", text(address)}, {"ServerPort", number(port)}});
}

class TaProcessManagerTest : public ::testing::Test {
 protected:
  void SetUp() override { kvx::test::FakeAgent::instance().reset(); }
  TaProcessManager& manager = TaProcessManager::getInstance();
};

TEST_F(TaProcessManagerTest, AdmissionFollowsTheLookupOrderAndComparesExactly) {
  struct Case {
    const char* name;
    Block config;
    int32_t expected;
  };
  const Case cases[] = {
      {"TaType KVX", block({{"TaType", text("KVX")}}), TA_METHOD_SERVED},
      {"TaType wins over the enumeration",
       block({{"TaType", text("KVX")}, {"Target Access Method", enumeration({"JTAG"})}}), TA_METHOD_SERVED},
      {"lower case", block({{"TaType", text("kvx")}}), TA_METHOD_NOT_SERVED},
      {"trailing blank", block({{"TaType", text("KVX ")}}), TA_METHOD_NOT_SERVED},
      {"leading blank", block({{"TaType", text(" KVX")}}), TA_METHOD_NOT_SERVED},
      {"empty name", block({{"TaType", text("")}}), TA_METHOD_NOT_SERVED},
      {"text TaType is final",
       block({{"TaType", text("kvx")}, {"Target Access Method", enumeration({"KVX"})}}),
       TA_METHOD_NOT_SERVED},
      {"TaType of another type falls back",
       block({{"TaType", number(1)}, {"Target Access Method", enumeration({"KVX"})}}), TA_METHOD_SERVED},
      {"first enumeration value counts", block({{"Target Access Method", enumeration({"KVX", "JTAG"})}}),
       TA_METHOD_SERVED},
      {"later enumeration values do not", block({{"Target Access Method", enumeration({"JTAG", "KVX"})}}),
       TA_METHOD_NOT_SERVED},
      {"method as text is not an enumeration", block({{"Target Access Method", text("KVX")}}),
       TA_METHOD_MISSING},
      {"TaType of another type and nothing else", block({{"TaType", number(7)}}), TA_METHOD_MISSING},
      {"no attributes", block({}), TA_METHOD_MISSING},
      {"enumeration without a list", block({{"Target Access Method", boost::make_shared<EnumAttribute>()}}),
       TA_METHOD_MISSING},
      {"empty first enumeration value", block({{"Target Access Method", enumeration({"", "KVX"})}}),
       TA_METHOD_NOT_SERVED},
      {"TaType as an enumeration", block({{"TaType", enumeration({"KVX"})}}), TA_METHOD_MISSING},
      {"method as a number", block({{"Target Access Method", number(1)}}), TA_METHOD_MISSING},
      {"attributes of the bare base type",
       block({{"TaType", boost::make_shared<ConfigAttribute>()},
              {"Target Access Method", boost::make_shared<ConfigAttribute>()}}),
       TA_METHOD_MISSING},
      {"empty attribute pointers", block({{"TaType", nullptr}, {"Target Access Method", nullptr}}),
       TA_METHOD_MISSING},
      {"empty TaType pointer falls back",
       block({{"TaType", nullptr}, {"Target Access Method", enumeration({"KVX"})}}), TA_METHOD_SERVED},
      {"empty block pointer", Block(), TA_METHOD_MISSING},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(manager.registerClient(
                  boost::make_shared<TargetConfig_TaProcessClient>("id", "", NOTIFICATION_NONE), c.config),
              c.expected)
        << "case: " << c.name;
    EXPECT_EQ(manager.registerClient(boost::shared_ptr<TaClient>(), c.config), c.expected)
        << "case: " << c.name;
    EXPECT_EQ(manager.unregisterClient("", c.config), c.expected) << "case: " << c.name;
    EXPECT_EQ(manager.unregisterClient("never registered", c.config), c.expected) << "case: " << c.name;
  }
  EXPECT_EQ(kvx::test::FakeAgent::instance().calls().size(), 0u) << "admission never reaches the agent";
}

TEST_F(TaProcessManagerTest, TextTaTypeStopsTheLookupBeforeTheEnumeration) {
  auto method = boost::make_shared<CountingEnumAttribute>(boost::make_shared<EnumValueList>());
  auto config = block({{"TaType", text("other")}, {"Target Access Method", method}});
  EXPECT_EQ(manager.registerClient(nullptr, config), TA_METHOD_NOT_SERVED);
  EXPECT_EQ(method->calls, 0);
  EXPECT_EQ(static_cast<RecordingBlock&>(*config).asked, std::vector<std::string>{"TaType"});
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
  auto config = servedBlock("10.0.0.1", 4242);
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
  struct Case {
    const char* name;
    Block config;
  };
  const Case cases[] = {
      {"other method",
       block({{"TaType", text("JTAG")}, {"ServerAddress", text("h")}, {"ServerPort", number(1)}})},
      {"no method", block({{"ServerAddress", text("h")}, {"ServerPort", number(1)}})},
      {"port as text",
       block({{"TaType", text("KVX")}, {"ServerAddress", text("h")}, {"ServerPort", text("80")}})},
      {"address as number",
       block({{"TaType", text("KVX")}, {"ServerAddress", number(1)}, {"ServerPort", number(1)}})},
      {"no address", block({{"TaType", text("KVX")}, {"ServerPort", number(1)}})},
      {"no port", block({{"TaType", text("KVX")}, {"ServerAddress", text("h")}})},
      {"address and port as enumerations", block({{"TaType", text("KVX")},
                                                  {"ServerAddress", enumeration({"h"})},
                                                  {"ServerPort", enumeration({"1"})}})},
      {"empty address pointer",
       block({{"TaType", text("KVX")}, {"ServerAddress", nullptr}, {"ServerPort", number(1)}})},
      {"empty port pointer",
       block({{"TaType", text("KVX")}, {"ServerAddress", text("h")}, {"ServerPort", nullptr}})},
      {"port of the bare base type", block({{"TaType", text("KVX")},
                                            {"ServerAddress", text("h")},
                                            {"ServerPort", boost::make_shared<ConfigAttribute>()}})},
      {"empty block pointer", Block()},
  };
  for (const Case& c : cases) {
    EXPECT_FALSE(manager.getTaProcess("name", c.config)) << "case: " << c.name;
  }
}

TEST_F(TaProcessManagerTest, BothServerAttributesAreAskedForOnlyOnceTheMethodIsServed) {
  auto missingAddress = block({{"TaType", text("KVX")}});
  manager.getTaProcess("", missingAddress);
  EXPECT_EQ(static_cast<RecordingBlock&>(*missingAddress).asked,
            (std::vector<std::string>{"TaType", "ServerAddress", "ServerPort"}));

  auto unserved = block({{"TaType", text("JTAG")}, {"ServerAddress", text("h")}, {"ServerPort", number(1)}});
  manager.getTaProcess("", unserved);
  EXPECT_EQ(static_cast<RecordingBlock&>(*unserved).asked, std::vector<std::string>{"TaType"});
}

TEST_F(TaProcessManagerTest, PortKeepsItsThirtyTwoBitsAndAddressIsPassedUnchanged) {
  struct Case {
    std::string address;
    uint32_t port;
    int expectedPort;
  };
  const Case cases[] = {{"host", 4294967295u, -1},
                        {"host", 2147483648u, -2147483647 - 1},
                        {"", 0, 0},
                        {" [::1] ", 65535, 65535}};
  for (const Case& c : cases) {
    auto process = manager.getTaProcess("", servedBlock(c.address, c.port));
    ASSERT_TRUE(process) << "port " << c.port;
    KVXConnection connection = static_cast<TaProcessKVX&>(*process).getLocalConnection();
    EXPECT_EQ(connection.getTargetAddress(), c.address);
    EXPECT_EQ(connection.getTargetPort(), c.expectedPort);
  }
}

}  // namespace
}  // namespace vorn
