// An engine that was built without its HTTP server and its sending of traces.

#include <gtest/gtest.h>
#include <signal.h>

#include <cstdlib>

#include "programs.h"

namespace {

using armtest::builtProgram;
using armtest::EngineProcess;
using armtest::linesWith;
using armtest::Ran;
using armtest::runShell;

TEST(NoNetwork, WhatItCannotDoIsRefusedInOneSentence) {
  for (const char* arguments : {"--listen 0", "--otlp http://127.0.0.1:4318"}) {
    const Ran ran = runShell(builtProgram("armengine") + " " + arguments);
    EXPECT_EQ(1, ran.status);
    EXPECT_EQ("", ran.out);
    EXPECT_EQ(1U, linesWith(ran.err, "")) << ran.err;
    EXPECT_EQ(1U, linesWith(ran.err, "this engine was built without")) << ran.err;
  }
}

TEST(NoNetwork, EnvironmentForEveryProgramIsNoReasonToRefuse) {
  ASSERT_EQ(0, setenv("OTEL_EXPORTER_OTLP_ENDPOINT", "http://127.0.0.1:4318", 1));
  EngineProcess engine(std::vector<std::string>{});
  EXPECT_NE("", engine.ready());
  EXPECT_EQ(0, engine.end(SIGTERM));
}

}  // namespace
