// Traces, with a receiver that takes them, fails, delays and refuses.

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>

#include "armext.h"
#include "outputs.h"
#include "process.h"

namespace {

using armtest::Background;
using armtest::contentOf;
using armtest::EngineProcess;
using armtest::forkChild;
using armtest::linesWith;
using armtest::Ran;
using armtest::runShell;
using armtest::ServingEngine;
using armtest::testTool;
using armtest::waitUntil;
using nlohmann::json;

constexpr const char* RECEIVED = "/tmp/received";

class Receiver {
 public:
  explicit Receiver(const std::vector<std::string>& behaviours = {"200"}) {
    std::vector<std::string> arguments = {"/usr/bin/python3",
                                          ARM_SOURCE_DIR "/tests/engine/receiver.py", RECEIVED};
    arguments.insert(arguments.end(), behaviours.begin(), behaviours.end());
    program_ = std::make_unique<Background>(arguments);
    // Spans wait a short time for others.
    setenv("OTEL_BSP_SCHEDULE_DELAY", "50", 1);
  }
  std::string url() const { return "http://127.0.0.1:" + program_->firstLine(); }

 private:
  std::unique_ptr<Background> program_;
};

std::vector<json> linesOf(const std::string& path) {
  std::vector<json> lines;
  std::istringstream text(contentOf(path));
  for (std::string line; std::getline(text, line);) lines.push_back(json::parse(line));
  return lines;
}

/// All spans of export requests, with their service.
std::vector<json> spansOf(const std::vector<json>& requests) {
  std::vector<json> spans;
  for (const json& request : requests) {
    for (const json& resource : request.at("resourceSpans")) {
      for (const json& attribute : resource.at("resource").at("attributes")) {
        if (attribute.at("key") != "service.name") continue;
        for (json span : resource.at("scopeSpans").at(0).at("spans")) {
          span["service"] = attribute.at("value").at("stringValue");
          spans.push_back(span);
        }
      }
    }
  }
  return spans;
}

/// The spans of requests that were met with a behaviour that takes them.
std::vector<json> takenSpans() {
  std::vector<json> bodies;
  for (const json& line : linesOf(RECEIVED)) {
    const std::string behaviour = line.at("behaviour");
    if (behaviour == "200" || behaviour.rfind("slow", 0) == 0) bodies.push_back(line.at("body"));
  }
  return spansOf(bodies);
}

std::map<std::string, json> attributesOf(const json& of) {
  std::map<std::string, json> attributes;
  for (const json& one : of.at("attributes")) attributes[one.at("key")] = one.at("value");
  return attributes;
}

int32_t registerDescribed(const char* application, const char* name, void* described = nullptr) {
  const int32_t id = arm_init(application, "*", 0, nullptr, 0);
  return arm_getid(id, name, "its detail", 0, described, described != nullptr ? 344 : 0);
}

void startAndStop(int32_t id, int32_t status) {
  EXPECT_EQ(0, arm_stop(arm_start(id, 0, nullptr, 0), status, 0, nullptr, 0));
}

/// A parent with a child of its own, both with everything that a transaction can have.
void makeFullTrace() {
  arm_user_data101_t described = {};
  described.format = ARM_DATA_FORMAT_101;
  described.flags[1] = ARM_AllMetrics_f;
  const int32_t types[] = {ARM_Counter64, ARM_Gauge32,    ARM_GaugeDivr32, ARM_NumericID64,
                           ARM_String8,   ARM_CntrDivr32, ARM_String32};
  for (int i = 0; i < 7; ++i) {
    described.metric[i].type = types[i];
    std::strcpy(described.metric[i].name, ("metric " + std::to_string(i)).c_str());
  }
  const int32_t order = registerDescribed("shop", "order");
  const int32_t query = registerDescribed("stock", "query \"x\"\n\xC3\xA4", &described);
  arm_user_data1_t block = {};
  block.format = ARM_DATA_FORMAT_1;
  block.flags[0] = ARM_CorrReq_f;
  const int32_t parent = arm_start(order, 0, &block, sizeof block);
  block.flags[0] = ARM_CorrPar_f;
  block.flags[1] = ARM_AllMetrics_f;
  block.metric[0].value64 = {0xFFFFFFFF, 0xFFFFFFFF};
  block.metric[1].value32 = -5;
  block.metric[2].ratio32 = {1, 8};
  block.metric[3].value64 = {0, 1};
  std::memcpy(block.metric[4].string8, "abc", 3);
  block.metric[5].ratio32 = {1, 0};
  std::strcpy(block.string32, "customer \xC3\xA4");
  const int32_t child = arm_start(query, 0, &block, sizeof block);
  arm_user_data2_t text = {ARM_DATA_FORMAT_2, "half way"};
  EXPECT_EQ(0, arm_update(child, 0, &text, sizeof text));
  EXPECT_EQ(0, arm_associateMetricData(child, "\x00\xFF", 2));
  block.metric[1].value32 = 6;
  EXPECT_EQ(0, arm_update(child, 0, &block, sizeof block));
  EXPECT_EQ(0, arm_stop(child, ARM_FAILED, 0, nullptr, 0));
  EXPECT_EQ(0, arm_stop(parent, ARM_GOOD, 0, nullptr, 0));
  EXPECT_EQ(0, arm_transactionReport(order, 0, nullptr, 0, 1, ARM_ABORT, 1500, 0));
}

void expectFullTrace(const std::vector<json>& spans) {
  ASSERT_EQ(3U, spans.size());
  std::map<std::string, json> by_outcome;
  for (const json& span : spans) {
    by_outcome[attributesOf(span).at("arm.outcome").at("stringValue")] = span;
  }
  const json& child = by_outcome.at("failed");
  const json& parent = by_outcome.at("good");
  const json& reported = by_outcome.at("aborted");
  EXPECT_EQ("stock", child.at("service"));
  EXPECT_EQ("query \"x\"\n\xC3\xA4", child.at("name"));
  EXPECT_EQ(parent.at("traceId"), child.at("traceId"));
  EXPECT_EQ(parent.at("spanId"), child.at("parentSpanId"));
  EXPECT_FALSE(parent.contains("parentSpanId"));
  EXPECT_NE(parent.at("traceId"), reported.at("traceId"));
  EXPECT_FALSE(parent.contains("status"));
  EXPECT_EQ((json{{"code", 2}, {"message", "failed"}}), child.at("status"));
  EXPECT_EQ((json{{"code", 2}, {"message", "aborted"}}), reported.at("status"));
  const auto attributes = attributesOf(child);
  EXPECT_EQ("its detail", attributes.at("arm.detail").at("stringValue"));
  EXPECT_DOUBLE_EQ(18446744073709551615.0, attributes.at("metric 0").at("doubleValue"));
  EXPECT_EQ("6", attributes.at("metric 1").at("intValue")) << "the last one counts";
  EXPECT_DOUBLE_EQ(0.125, attributes.at("metric 2").at("doubleValue"));
  EXPECT_EQ("4294967296", attributes.at("metric 3").at("intValue"));
  EXPECT_EQ("abc", attributes.at("metric 4").at("stringValue"));
  EXPECT_EQ(0U, attributes.count("metric 5"));
  EXPECT_EQ("customer \xC3\xA4", attributes.at("metric 6").at("stringValue"));
  EXPECT_EQ(std::to_string(getpid()), attributes.at("process.pid").at("intValue"));
  ASSERT_EQ(3U, child.at("events").size());
  const auto event_attributes = [&child](size_t i) { return attributesOf(child["events"][i]); };
  EXPECT_EQ("half way", event_attributes(0).at("arm.data").at("stringValue"));
  EXPECT_EQ("00ff", event_attributes(1).at("arm.data_hex").at("stringValue"));
  EXPECT_EQ("6", event_attributes(2).at("metric 1").at("intValue"));
  const auto nanoseconds = [](const json& span, const char* key) {
    return std::stoull(span.at(key).get<std::string>());
  };
  EXPECT_LE(nanoseconds(parent, "startTimeUnixNano"), nanoseconds(child, "startTimeUnixNano"));
  EXPECT_GE(nanoseconds(parent, "endTimeUnixNano"), nanoseconds(child, "endTimeUnixNano"));
  EXPECT_EQ(1500000000U,
            nanoseconds(reported, "endTimeUnixNano") - nanoseconds(reported, "startTimeUnixNano"));
}

TEST(Otlp, SpansArriveWithAllThatIsKnown) {
  const Receiver receiver;
  ServingEngine engine({"--otlp", receiver.url()});
  makeFullTrace();
  EXPECT_TRUE(waitUntil([] { return takenSpans().size() == 3; }));
  // Counted when the receiver's answer is there.
  EXPECT_TRUE(waitUntil(
      [&] { return engine.value("arm_engine_sent_total{output=\"otlp\",what=\"spans\"}") == 3; }));
  EXPECT_EQ(0, engine.end(SIGTERM));
  expectFullTrace(takenSpans());
  const json request = linesOf(RECEIVED).at(0);
  EXPECT_EQ("/v1/traces", request.at("path"));
  EXPECT_EQ("application/json", request.at("headers").at("content-type"));
  EXPECT_EQ("gzip", request.at("headers").at("content-encoding"));
}

TEST(Otlp, FileHoldsTheSameAndAgreesWithTheOfficialDefinitions) {
  EngineProcess engine({"--otlp-file", "/tmp/traces"});
  makeFullTrace();
  for (int i = 0; i < 200; ++i) startAndStop(registerDescribed("shop", "refund"), i % 5);
  EXPECT_EQ(0, engine.end(SIGTERM));
  std::vector<json> spans = spansOf(linesOf("/tmp/traces"));
  EXPECT_EQ(203U, spans.size());
  const auto is_refund = [](const json& span) { return span.at("name") == "refund"; };
  spans.erase(std::remove_if(spans.begin(), spans.end(), is_refund), spans.end());
  expectFullTrace(spans);
  const Ran ran = runShell("node " ARM_SOURCE_DIR "/tests/engine/otlp_definitions.js " +
                           testTool("otlp") + " /tmp/traces");
  EXPECT_EQ(0, ran.status) << ran.err;
  EXPECT_EQ(1U, linesWith(ran.out, " 203 spans")) << ran.out;
}

TEST(Otlp, DefinitionsRefuseWhatTheyDoNotKnow) {
  const std::string spans = R"({"resourceSpans":[{"scopeSpans":[{"spans":[{"nonsense":1}]}]}]})";
  const Ran ran =
      runShell("echo '" + spans +
               "' >/tmp/traces; node " ARM_SOURCE_DIR "/tests/engine/otlp_definitions.js " +
               testTool("otlp") + " /tmp/traces");
  EXPECT_NE(0, ran.status);
}

TEST(Otlp, OnlyWhatTheProtocolNamesIsTriedAgain) {
  const Receiver receiver({"429+1", "503", "hangup", "200"});
  ServingEngine engine({"--otlp", receiver.url()});
  startAndStop(registerDescribed("shop", "order"), ARM_GOOD);
  EXPECT_TRUE(waitUntil([] { return takenSpans().size() == 1; }));
  EXPECT_EQ(4U, linesOf(RECEIVED).size());
  EXPECT_TRUE(waitUntil(
      [&] { return engine.value("arm_engine_sent_total{output=\"otlp\",what=\"spans\"}") == 1; }));
  EXPECT_EQ(3, engine.value("arm_engine_sent_total{output=\"otlp\",what=\"retries\"}"));
  EXPECT_EQ(0, engine.value("arm_engine_dropped_total{output=\"otlp\",reason=\"refused\"}"));
  EXPECT_EQ(0, engine.end(SIGTERM));
}

TEST(Otlp, RefusedRequestsAreDroppedAndCounted) {
  for (const char* status : {"400", "404", "500"}) {
    const Receiver receiver({status});
    ServingEngine engine({"--otlp", receiver.url()});
    startAndStop(registerDescribed("shop", "order"), ARM_GOOD);
    EXPECT_TRUE(waitUntil([&] {
      return engine.value("arm_engine_dropped_total{output=\"otlp\",reason=\"refused\"}") == 1;
    }));
    EXPECT_EQ(1U, linesOf(RECEIVED).size()) << status;
    EXPECT_EQ(0, engine.end(SIGTERM));
    ASSERT_EQ(0, unlink(RECEIVED));
  }
}

TEST(Otlp, SpansThatAReceiverRejectsAreCounted) {
  const Receiver receiver({"partial:2"});
  setenv("OTEL_BSP_SCHEDULE_DELAY", "1000", 1);
  ServingEngine engine({"--otlp", receiver.url()});
  const int32_t id = registerDescribed("shop", "order");
  for (int i = 0; i < 5; ++i) startAndStop(id, ARM_GOOD);
  EXPECT_TRUE(waitUntil([&] {
    return engine.value("arm_engine_dropped_total{output=\"otlp\",reason=\"refused\"}") >= 2;
  }));
  EXPECT_EQ(3, engine.value("arm_engine_sent_total{output=\"otlp\",what=\"spans\"}"));
  EXPECT_EQ(0, engine.end(SIGTERM));
}

TEST(Otlp, SlowReceiverIsNotWaitedForLongerThanTheTimeout) {
  const Receiver receiver({"slow:20", "200"});
  setenv("OTEL_EXPORTER_OTLP_TIMEOUT", "200", 1);
  EngineProcess engine({"--otlp", receiver.url()});
  startAndStop(registerDescribed("shop", "order"), ARM_GOOD);
  EXPECT_TRUE(waitUntil([] { return linesOf(RECEIVED).size() == 2; }));
  EXPECT_EQ(0, engine.end(SIGTERM));
}

TEST(Otlp, ReceiverThatIsAwayCostsABoundedMemoryAndNoProgramItsTime) {
  setenv("OTEL_BSP_MAX_QUEUE_SIZE", "100", 1);
  setenv("OTEL_BSP_MAX_EXPORT_BATCH_SIZE", "10", 1);
  ServingEngine engine({"--otlp", "http://127.0.0.1:1"});
  const int32_t id = registerDescribed("shop", "order");
  for (int i = 0; i < 500; ++i) startAndStop(id, ARM_GOOD);
  EXPECT_TRUE(waitUntil([&] {
    return engine.value("arm_engine_dropped_total{output=\"otlp\",reason=\"too_many_waiting\"}") >=
           390;
  }));
  EXPECT_EQ(0, engine.value("arm_engine_dropped_total{output=\"spans\",reason=\"ring_full\"}"));
  EXPECT_EQ(0, engine.end(SIGTERM)) << "it ends within its limit";
}

TEST(Otlp, WhatWaitsIsDeliveredAtTheEnd) {
  const Receiver receiver;
  setenv("OTEL_BSP_SCHEDULE_DELAY", "3600000", 1);
  EngineProcess engine({"--otlp", receiver.url()});
  const int32_t id = registerDescribed("shop", "order");
  for (int i = 0; i < 50; ++i) startAndStop(id, ARM_GOOD);
  EXPECT_EQ(0, engine.end(SIGTERM));
  EXPECT_EQ(50U, takenSpans().size());
}

TEST(Otlp, EnvironmentIsFollowed) {
  const Receiver receiver;
  setenv("OTEL_EXPORTER_OTLP_ENDPOINT", (receiver.url() + "/base/").c_str(), 1);
  setenv("OTEL_EXPORTER_OTLP_HEADERS", "x-key=a%20b,x-other=c", 1);
  setenv("OTEL_EXPORTER_OTLP_COMPRESSION", "none", 1);
  setenv("OTEL_RESOURCE_ATTRIBUTES", "host.name=here,service.name=not this", 1);
  EngineProcess engine(std::vector<std::string>{});
  startAndStop(registerDescribed("shop", "order"), ARM_GOOD);
  EXPECT_EQ(0, engine.end(SIGTERM));
  const json request = linesOf(RECEIVED).at(0);
  EXPECT_EQ("/base/v1/traces", request.at("path"));
  EXPECT_EQ("a b", request.at("headers").at("x-key"));
  EXPECT_EQ("c", request.at("headers").at("x-other"));
  EXPECT_FALSE(request.at("headers").contains("content-encoding"));
  const auto resource = attributesOf(request["body"]["resourceSpans"][0]["resource"]);
  EXPECT_EQ("here", resource.at("host.name").at("stringValue"));
  EXPECT_EQ("shop", resource.at("service.name").at("stringValue"));
}

TEST(Otlp, UntracedTransactionsAreNoSpans) {
  EngineProcess engine({"--otlp-file", "/tmp/traces", "--ignore", "shop/probe"});
  startAndStop(registerDescribed("shop", "probe"), ARM_GOOD);
  startAndStop(registerDescribed("shop", "order"), ARM_GOOD);
  EXPECT_EQ(0, engine.end(SIGTERM));
  const auto spans = spansOf(linesOf("/tmp/traces"));
  ASSERT_EQ(1U, spans.size());
  EXPECT_EQ("order", spans[0].at("name"));
}

TEST(Otlp, AbandonedTransactionIsASpanThatSaysSo) {
  EngineProcess engine({"--otlp-file", "/tmp/traces"});
  const pid_t child = forkChild([] {
    return arm_start(registerDescribed("shop", "order"), 0, nullptr, 0) > 0
               ? kill(getpid(), SIGKILL)
               : 1;
  });
  EXPECT_EQ(128 + SIGKILL, armtest::exitCodeOf(child));
  EXPECT_TRUE(waitUntil([] { return !linesOf("/tmp/traces").empty(); }));
  EXPECT_EQ(0, engine.end(SIGTERM));
  const json span = spansOf(linesOf("/tmp/traces")).at(0);
  EXPECT_EQ((json{{"code", 2}, {"message", "abandoned"}}), span.at("status"));
}

}  // namespace
