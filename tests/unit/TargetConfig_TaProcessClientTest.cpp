#include "client/TargetConfig_TaProcessClient.h"

#include <set>
#include <string>

#include <gtest/gtest.h>

namespace vorn {
namespace {

/// Lets the tests see the notification the client kept.
class InspectableClient : public TargetConfig_TaProcessClient {
 public:
  using TargetConfig_TaProcessClient::TargetConfig_TaProcessClient;
  _NOTIFICATION_TYPE notificationType() const { return m_notificationType; }
  _NOTIFICATION_TYPE lastType() const { return m_lastNotificationType; }
  _Process_Event lastEvent() const { return m_lastProcessEvent; }
  _Event_Reason lastReason() const { return m_lastEventReason; }
};

bool isUuidV4(const std::string& id) {
  if (id.size() != 36 || id[14] != '4') {
    return false;
  }
  for (size_t i = 0; i < id.size(); ++i) {
    const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
    if (dash ? id[i] != '-' : !std::isxdigit(static_cast<unsigned char>(id[i]))) {
      return false;
    }
  }
  return std::string("89ab").find(id[19]) != std::string::npos;
}

TEST(TargetConfigTaProcessClientTest, DefaultClientsCarryFreshIdentifiersAndNoLaunchName) {
  std::set<std::string> ids;
  for (int i = 0; i < 100; ++i) {
    InspectableClient client;
    EXPECT_TRUE(isUuidV4(client.getUUID())) << client.getUUID();
    EXPECT_TRUE(client.getLaunchName().empty());
    ids.insert(client.getUUID());
  }
  EXPECT_EQ(ids.size(), 100u);
}

TEST(TargetConfigTaProcessClientTest, GivenIdentifierIsKeptAsItIsEvenWhenEmpty) {
  InspectableClient empty("", "", NOTIFICATION_SHUTDOWN);
  EXPECT_EQ(empty.getUUID(), "");
  EXPECT_EQ(empty.notificationType(), NOTIFICATION_SHUTDOWN);

  InspectableClient named("my-id", "launch", NOTIFICATION_PROCESS_EVENT);
  EXPECT_EQ(named.getUUID(), "my-id");
  EXPECT_EQ(named.getLaunchName(), "launch");
}

TEST(TargetConfigTaProcessClientTest, AccessorsHandOutCopiesAndAStableReference) {
  InspectableClient client("id", "launch", NOTIFICATION_NONE);
  std::string copy = client.getUUID();
  copy[0] = 'X';
  EXPECT_EQ(client.getUUID(), "id");

  const std::string& launch = client.getLaunchName();
  EXPECT_EQ(&launch, &client.getLaunchName());
  TaClient& asClient = client;
  EXPECT_EQ(&asClient.getLaunchName(), &launch);
}

TEST(TargetConfigTaProcessClientTest, EachNotificationReplacesAllThreeValuesOfThePrevious) {
  InspectableClient client("id", "", NOTIFICATION_NONE);
  TaProcessInfo info;
  info.processId = 42;
  info.name = "core0";
  TaClient& asClient = client;
  EXPECT_TRUE(
      asClient.doCallback(NOTIFICATION_PROCESS_EVENT, PROCESS_EVENT_STOPPED, EVENT_REASON_BREAKPOINT, info));
  EXPECT_TRUE(asClient.doCallback(NOTIFICATION_SHUTDOWN, PROCESS_EVENT_EXITED, EVENT_REASON_USER, info));
  EXPECT_EQ(client.lastType(), NOTIFICATION_SHUTDOWN);
  EXPECT_EQ(client.lastEvent(), PROCESS_EVENT_EXITED);
  EXPECT_EQ(client.lastReason(), EVENT_REASON_USER);
  EXPECT_EQ(client.notificationType(), NOTIFICATION_NONE);
  EXPECT_EQ(info.processId, 42u);
  EXPECT_EQ(info.name, "core0");
  // Values the enumerations do not name are passed through as well.
  EXPECT_TRUE(asClient.doCallback(static_cast<_NOTIFICATION_TYPE>(-5), static_cast<_Process_Event>(1000),
                                  static_cast<_Event_Reason>(0x7fffffff), info));
  EXPECT_EQ(client.lastReason(), static_cast<_Event_Reason>(0x7fffffff));
}

}  // namespace
}  // namespace vorn
