#include "client/TargetConfig_TaProcessClient.h"

#include <regex>
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

TEST(TargetConfigTaProcessClientTest, DefaultClientsCarryFreshVersionFourIdentifiers) {
  const std::regex v4("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}");
  std::set<std::string> ids;
  for (int i = 0; i < 100; ++i) {
    InspectableClient client;
    EXPECT_TRUE(std::regex_match(client.getUUID(), v4)) << client.getUUID();
    EXPECT_TRUE(client.getLaunchName().empty());
    ids.insert(client.getUUID());
  }
  EXPECT_EQ(ids.size(), 100u);

  InspectableClient given("", "launch", NOTIFICATION_SHUTDOWN);
  EXPECT_EQ(given.getUUID(), "") << "a given identifier is kept, even an empty one";
  EXPECT_EQ(given.getLaunchName(), "launch");
  EXPECT_EQ(given.notificationType(), NOTIFICATION_SHUTDOWN);
}

TEST(TargetConfigTaProcessClientTest, EachNotificationReplacesAllThreeValuesOfThePrevious) {
  InspectableClient client("id", "", NOTIFICATION_NONE);
  TaProcessInfo info;
  info.processId = 42;
  TaClient& asClient = client;
  EXPECT_TRUE(
      asClient.doCallback(NOTIFICATION_PROCESS_EVENT, PROCESS_EVENT_STOPPED, EVENT_REASON_BREAKPOINT, info));
  EXPECT_TRUE(asClient.doCallback(NOTIFICATION_SHUTDOWN, PROCESS_EVENT_EXITED, EVENT_REASON_USER, info));
  EXPECT_EQ(client.lastType(), NOTIFICATION_SHUTDOWN);
  EXPECT_EQ(client.lastEvent(), PROCESS_EVENT_EXITED);
  EXPECT_EQ(client.lastReason(), EVENT_REASON_USER);
  EXPECT_EQ(client.notificationType(), NOTIFICATION_NONE);
  EXPECT_EQ(info.processId, 42u);
}

}  // namespace
}  // namespace vorn
