#include "bringup/FailureReasons.h"

#include <gtest/gtest.h>

#include "platform/agent/AgentStatus.h"

namespace kvx::test {
namespace {

using agent::Status;
using bringup::AgentFunction;
using bringup::Error;

bringup::AgentCall failed(AgentFunction function, Status status) {
  bringup::AgentCall call;
  call.function = function;
  call.status = static_cast<int32_t>(status);
  return call;
}

TEST(FailureReasonsTest, TheStandInsStatusNamesTheCauseAndItsKind) {
  bringup::CallContext context;
  context.endpoint = {"agent.example", 4000};
  context.registerName = "ps";
  context.address = 0x1234;
  const bringup::AgentLibrary standIn{"/opt/ta_kvx/lib/libtarget.agent.so", true};
  const struct {
    AgentFunction function;
    Status status;
    Error::Kind kind;
    std::string reason;
  } cases[] = {
      {AgentFunction::kStartSession, Status::kUnresolved, Error::Kind::kConnection,
       "the name 'agent.example' does not resolve"},
      {AgentFunction::kStartSession, Status::kConnectionRefused, Error::Kind::kConnection,
       "connection refused: nothing listens on port 4000"},
      {AgentFunction::kStartSession, Status::kSessionRefused, Error::Kind::kConnection,
       "the agent refused the session"},
      {AgentFunction::kStartSession, Status::kMalformedReply, Error::Kind::kConnection,
       "what answered is not a KVX agent"},
      {AgentFunction::kStartSession, Status::kBusy, Error::Kind::kConnection,
       "the agent is busy: another host holds its one session"},
      {AgentFunction::kIoRead, Status::kDenied, Error::Kind::kTarget,
       "access denied: the agent closes this range to accesses"},
      {AgentFunction::kIoWrite, Status::kOutOfMemory, Error::Kind::kTarget, "the target is out of memory"},
      {AgentFunction::kIoRead, Status::kConnectionLost, Error::Kind::kConnection,
       "the agent at agent.example:4000 is gone: it closed the connection"},
      {AgentFunction::kRegWrite, Status::kValueTooWide, Error::Kind::kTarget,
       "value too wide: ps is a 32-bit register"},
      {AgentFunction::kRegRead, Status::kUnknownRegister, Error::Kind::kTarget,
       "unknown register: the agent has no register called 'ps'"},
      {AgentFunction::kDdrReserve, Status::kNoSpace, Error::Kind::kTarget,
       "no space for a block that size in the reservation region"},
      {AgentFunction::kDdrUnreserve, Status::kNotReserved, Error::Kind::kTarget,
       "0x1234 is not the start of a reserved block"},
  };
  for (const auto& c : cases) {
    const bringup::FailureReason reason = failureReason(failed(c.function, c.status), context, standIn);
    EXPECT_TRUE(reason.kind == c.kind && reason.text == c.reason)
        << "case: " << bringup::functionName(c.function) << " " << static_cast<int>(c.status) << "\n"
        << reason.text;
  }
  // A timeout is whatever deadline the agent library was given.
  ::setenv("TA_AGENT_TIMEOUT_MS", "300", 1);
  EXPECT_EQ(failureReason(failed(AgentFunction::kIoRead, Status::kTimeout), context, standIn).text,
            "the agent at agent.example:4000 is gone: no answer within 300 ms (the agent library's deadline, "
            "TA_AGENT_TIMEOUT_MS)");
  ::unsetenv("TA_AGENT_TIMEOUT_MS");
  EXPECT_TRUE(bringup::meansNotReserved(static_cast<int32_t>(Status::kNotReserved), standIn));
}

TEST(FailureReasonsTest, AnotherLibrarysStatusIsNamedAndNotInterpreted) {
  const bringup::AgentLibrary other{"/opt/vendor/libtarget.agent.so", false};
  // The stand-in's "denied" could mean anything from another library.
  const bringup::FailureReason reason =
      failureReason(failed(AgentFunction::kIoRead, Status::kDenied), bringup::CallContext{}, other);
  EXPECT_EQ(reason.kind, Error::Kind::kTarget);
  EXPECT_EQ(reason.text,
            "io_read failed with status -12 (the agent library '/opt/vendor/libtarget.agent.so' is not the "
            "one this "
            "program was built with, so its statuses are not interpreted)");
  EXPECT_EQ(failureReason(failed(AgentFunction::kStartSession, Status::kDenied), {}, other).kind,
            Error::Kind::kConnection);
  EXPECT_FALSE(bringup::meansNotReserved(static_cast<int32_t>(Status::kNotReserved), other));
}

}  // namespace
}  // namespace kvx::test
