// Unit-test program of the plug-in, run against the recording agent of FakeAgent.cpp.

#include <gtest/gtest.h>
#include <log4cxx/logger.h>

#include "tests/unit/FakeAgent.h"

int main(int argc, char** argv) {
  // Whatever the libraries did while they were loaded has happened by now.
  kvx::test::g_callsAtStartup = kvx::test::FakeAgent::instance().calls().size();
  // Warnings are captured by the tests that expect them; keep the rest of the run quiet.
  log4cxx::Logger::getRootLogger()->setLevel(log4cxx::Level::getOff());
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
