#include "agent/KVXConnection.h"

#include <gtest/gtest.h>

#include "tests/unit/FakeAgent.h"

namespace vorn {
namespace {

using kvx::test::Fn;

class KVXConnectionTest : public ::testing::Test {
 protected:
  void SetUp() override { agent().reset(); }
  static kvx::test::FakeAgent& agent() { return kvx::test::FakeAgent::instance(); }

  /// An active descriptor for (address, port) while the socket is up; the calls so far forgotten.
  static KVXConnection opened(const std::string& address, int port) {
    KVXConnection connection(address, port);
    EXPECT_TRUE(connection.init());
    agent().reset();
    agent().setStatus(Fn::GetSockStatus, 0);
    return connection;
  }
};

TEST_F(KVXConnectionTest, EqualityLooksAtAddressAndPortOnly) {
  EXPECT_EQ(KVXConnection(), KVXConnection("", -1));
  EXPECT_EQ(opened("h", 1), KVXConnection("h", 1)) << "the flag takes no part";
  EXPECT_FALSE(KVXConnection("h", 1) == KVXConnection("h", 2));
  EXPECT_FALSE(KVXConnection("h", 1) == KVXConnection("H", 1));
  EXPECT_FALSE(KVXConnection(std::string("a\0b", 3), 1) == KVXConnection(std::string("a\0c", 3), 1));
}

TEST_F(KVXConnectionTest, InitOpensASessionOnlyWhenNotAlreadyUp) {
  KVXConnection unset;
  EXPECT_TRUE(unset.init());
  ASSERT_EQ(agent().functions(), (std::vector<Fn>{Fn::GetSockStatus, Fn::StartSession}));
  EXPECT_EQ(agent().calls()[1].text, "");
  EXPECT_EQ(agent().calls()[1].port, -1);

  agent().reset();
  agent().setStatus(Fn::GetSockStatus, 0);
  EXPECT_TRUE(unset.init());
  EXPECT_EQ(agent().functions(), std::vector<Fn>{Fn::GetSockStatus});

  agent().setStatus(Fn::GetSockStatus, 1);
  EXPECT_TRUE(unset.init()) << "a dropped connection is opened anew";
  EXPECT_EQ(agent().functions(), (std::vector<Fn>{Fn::GetSockStatus, Fn::GetSockStatus, Fn::StartSession}));

  agent().setStatus(Fn::StartSession, -7);
  EXPECT_FALSE(unset.init());
  agent().setStatus(Fn::GetSockStatus, 0);
  EXPECT_FALSE(unset.isActive()) << "a socket that is up does not make a failed start active";
}

TEST_F(KVXConnectionTest, TheFlagFollowsTheSocketAndDestroyAlwaysCloses) {
  KVXConnection connection = opened("h", 1);
  EXPECT_TRUE(connection.isActive());
  agent().setStatus(Fn::GetSockStatus, 3);
  EXPECT_FALSE(connection.isActive());
  agent().setStatus(Fn::GetSockStatus, 0);
  EXPECT_FALSE(connection.isActive()) << "the flag stays cleared until the next init";

  agent().reset();
  KVXConnection().destroy();
  KVXConnection active = opened("h", 1);
  agent().setStatus(Fn::DestroySession, -1);
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
  EXPECT_EQ(agent().functions().back(), Fn::DestroySession);
  EXPECT_EQ(connection.getTargetPort(), 2);

  KVXConnection other = opened("h", 1);
  other.setTargetAddress("h2");
  EXPECT_EQ(agent().functions(), (std::vector<Fn>{Fn::GetSockStatus, Fn::DestroySession}));
  EXPECT_EQ(other.getTargetAddress(), "h2");

  agent().reset();
  KVXConnection inactive;
  inactive.setTargetAddress("x");
  inactive.setTargetPort(9);
  EXPECT_EQ(agent().functions(), (std::vector<Fn>{Fn::GetSockStatus, Fn::GetSockStatus}));
  EXPECT_EQ(inactive, KVXConnection("x", 9));
}

TEST_F(KVXConnectionTest, CopiesCarryTheFlagAndMakeNoAgentCall) {
  KVXConnection original = opened("h", 1);
  agent().reset();
  {
    KVXConnection copy(original);
    KVXConnection assigned;
    assigned = original;
    EXPECT_TRUE(agent().calls().empty());
    agent().setStatus(Fn::GetSockStatus, 0);
    EXPECT_TRUE(copy.isActive());
    EXPECT_TRUE(assigned.isActive());
    agent().reset();
  }
  EXPECT_TRUE(agent().calls().empty()) << "destroying a descriptor never closes the session";

  // A stale copy still says active while the socket is up, and changing it closes the session
  // that another descriptor opened since.
  KVXConnection("b", 2).init();
  agent().reset();
  agent().setStatus(Fn::GetSockStatus, 0);
  original.setTargetPort(3);
  EXPECT_EQ(agent().functions(), (std::vector<Fn>{Fn::GetSockStatus, Fn::DestroySession}));
}

}  // namespace
}  // namespace vorn
