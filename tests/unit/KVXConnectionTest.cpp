#include "agent/KVXConnection.h"

#include <gtest/gtest.h>

#include "FakeAgent.h"

namespace vorn {
namespace {

using kvx::test::Fn;

class KVXConnectionTest : public ::testing::Test {
 protected:
  void SetUp() override { agent().reset(); }
  static kvx::test::FakeAgent& agent() { return kvx::test::FakeAgent::instance(); }

  /// An active descriptor for (address, port), with the call log cleared afterwards.
  static KVXConnection opened(const std::string& address, int port) {
    KVXConnection connection(address, port);
    EXPECT_TRUE(connection.init());
    agent().reset();
    agent().setStatus(Fn::GetSockStatus, 0);
    return connection;
  }
};

TEST_F(KVXConnectionTest, EqualityLooksAtAddressAndPortOnly) {
  EXPECT_EQ(KVXConnection(), KVXConnection());
  EXPECT_EQ(KVXConnection(), KVXConnection("", -1));
  EXPECT_EQ(opened("h", 1), KVXConnection("h", 1));
  EXPECT_FALSE(KVXConnection("h", 1) == KVXConnection("h", 2));
  EXPECT_FALSE(KVXConnection("h", 1) == KVXConnection("H", 1));
  EXPECT_FALSE(KVXConnection("h", 1) == KVXConnection("h ", 1));
  EXPECT_FALSE(KVXConnection(std::string("a\0b", 3), 1) == KVXConnection(std::string("a\0c", 3), 1));
}

TEST_F(KVXConnectionTest, InitOpensASessionOnlyWhenNotAlreadyUp) {
  KVXConnection unset;
  EXPECT_TRUE(unset.init());
  ASSERT_EQ(agent().calls().size(), 2u);
  EXPECT_EQ(agent().calls()[0].fn, Fn::GetSockStatus);
  EXPECT_EQ(agent().calls()[1].fn, Fn::StartSession);
  EXPECT_EQ(agent().calls()[1].text, "");
  EXPECT_EQ(agent().calls()[1].port, -1);

  agent().reset();
  agent().setStatus(Fn::GetSockStatus, 0);
  EXPECT_TRUE(unset.init());
  EXPECT_EQ(agent().functions(), std::vector<Fn>{Fn::GetSockStatus});

  // The connection dropped: init opens a new session.
  agent().setStatus(Fn::GetSockStatus, 1);
  EXPECT_TRUE(unset.init());
  EXPECT_EQ(agent().functions(), (std::vector<Fn>{Fn::GetSockStatus, Fn::GetSockStatus, Fn::StartSession}));
}

TEST_F(KVXConnectionTest, FailedStartLeavesTheDescriptorInactive) {
  agent().setStatus(Fn::StartSession, -7);
  KVXConnection connection("h", 5);
  EXPECT_FALSE(connection.init());
  agent().setStatus(Fn::GetSockStatus, 0);
  EXPECT_FALSE(connection.isActive()) << "a socket that is up does not make a failed start active";
}

TEST_F(KVXConnectionTest, IsActiveClearsTheFlagWhenTheSocketIsDown) {
  KVXConnection connection = opened("h", 1);
  EXPECT_TRUE(connection.isActive());
  agent().setStatus(Fn::GetSockStatus, 3);
  EXPECT_FALSE(connection.isActive());
  agent().setStatus(Fn::GetSockStatus, 0);
  EXPECT_FALSE(connection.isActive()) << "the flag stays cleared until the next init";
}

TEST_F(KVXConnectionTest, DestroyClosesTheSessionWhateverTheFlag) {
  KVXConnection inactive;
  inactive.destroy();
  KVXConnection active = opened("h", 1);
  agent().setStatus(Fn::DestroySession, -1);  // the status is ignored
  active.destroy();
  EXPECT_EQ(agent().functions(), (std::vector<Fn>{Fn::DestroySession}));
  EXPECT_FALSE(active.isActive());
}

TEST_F(KVXConnectionTest, SettersCloseAnActiveSessionOnlyForAnotherValue) {
  KVXConnection connection = opened("h", 1);
  connection.setTargetPort(1);
  connection.setTargetAddress("h");
  EXPECT_EQ(agent().functions(), (std::vector<Fn>{Fn::GetSockStatus, Fn::GetSockStatus}));

  connection.setTargetPort(2);
  EXPECT_EQ(agent().functions(),
            (std::vector<Fn>{Fn::GetSockStatus, Fn::GetSockStatus, Fn::GetSockStatus, Fn::DestroySession}));
  EXPECT_EQ(connection.getTargetPort(), 2);

  KVXConnection other = opened("h", 1);
  other.setTargetAddress("h2");
  EXPECT_EQ(agent().functions(), (std::vector<Fn>{Fn::GetSockStatus, Fn::DestroySession}));
  EXPECT_EQ(other.getTargetAddress(), "h2");
}

TEST_F(KVXConnectionTest, SettersOnAnInactiveDescriptorOnlyAskTheSocket) {
  KVXConnection connection;
  connection.setTargetAddress("x");
  connection.setTargetPort(9);
  EXPECT_EQ(agent().functions(), (std::vector<Fn>{Fn::GetSockStatus, Fn::GetSockStatus}));
  EXPECT_EQ(connection, KVXConnection("x", 9));
}

TEST_F(KVXConnectionTest, CopiesCarryTheFlagAndMakeNoAgentCall) {
  KVXConnection original = opened("h", 1);
  agent().reset();
  {
    KVXConnection copy(original);
    KVXConnection assigned;
    assigned = original;
    EXPECT_EQ(agent().calls().size(), 0u);
    agent().setStatus(Fn::GetSockStatus, 0);
    EXPECT_TRUE(copy.isActive());
    EXPECT_TRUE(assigned.isActive());
    agent().reset();
  }
  EXPECT_EQ(agent().calls().size(), 0u) << "destroying a descriptor never closes the session";
}

TEST_F(KVXConnectionTest, StaleActiveDescriptorClosesTheSessionOthersOpened) {
  KVXConnection stale = opened("a", 1);
  KVXConnection current("b", 2);
  current.destroy();
  current.init();
  agent().reset();
  agent().setStatus(Fn::GetSockStatus, 0);
  stale.setTargetPort(3);
  EXPECT_EQ(agent().functions(), (std::vector<Fn>{Fn::GetSockStatus, Fn::DestroySession}));
}

}  // namespace
}  // namespace vorn
