#include "sim/Sessions.h"

#include <gtest/gtest.h>

#include <set>

namespace kvx::sim {
namespace {

/// Two clients of one agent; `closed` collects those whose connection the agent closed.
struct TwoClients {
  explicit TwoClients(bool exclusive) : sessions(exclusive) {}
  Sessions sessions;
  std::set<int> closed;
  const Sessions::ClientId first = sessions.join([this] { closed.insert(1); }, [] {});
  const Sessions::ClientId second = sessions.join([this] { closed.insert(2); }, [] {});
};

TEST(SessionsTest, ExclusiveAgentTakesOneSessionAtATimeAndClosesParkedOnesBeforeGivingItAway) {
  TwoClients agent(true);
  ASSERT_TRUE(agent.sessions.open(agent.first));
  EXPECT_FALSE(agent.sessions.open(agent.second)) << "busy while the first session is open";
  agent.sessions.end(agent.first);
  EXPECT_TRUE(agent.closed.empty()) << "a parked connection stays open while nobody wants the session";
  ASSERT_TRUE(agent.sessions.open(agent.first)) << "and resumes";
  agent.sessions.end(agent.first);
  ASSERT_TRUE(agent.sessions.open(agent.second)) << "a parked session keeps nobody out";
  EXPECT_EQ(agent.closed, std::set<int>{1}) << "the parked connection is told, by being closed";
  agent.sessions.leave(agent.second);
  EXPECT_TRUE(agent.sessions.open(agent.first)) << "a client that leaves takes its session along";
}

TEST(SessionsTest, SharedAgentAdmitsEveryClientAndClosesNothing) {
  TwoClients agent(false);
  ASSERT_TRUE(agent.sessions.open(agent.first));
  agent.sessions.end(agent.first);
  EXPECT_TRUE(agent.sessions.open(agent.second));
  EXPECT_TRUE(agent.sessions.open(agent.first));
  EXPECT_TRUE(agent.closed.empty());
}

}  // namespace
}  // namespace kvx::sim
