// The page of metrics, with the real scraper and its tools.

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>

#include "armext.h"
#include "outputs.h"
#include "process.h"

namespace {

using armtest::Background;
using armtest::builtProgram;
using armtest::forkChild;
using armtest::httpGet;
using armtest::httpHead;
using armtest::linesWith;
using armtest::Ran;
using armtest::registerClass;
using armtest::report;
using armtest::runShell;
using armtest::ServingEngine;
using armtest::testTool;
using armtest::waitUntil;
using nlohmann::json;

/// The names of 3,619 characters, with quotes, newlines, and what is not ASCII.
const std::string ODD_APPLICATION = "sh\"op\\\n\xC3\xA4\xE2\x82\xAC";
std::string oddTransaction() {
  const std::string odd = "\"quoted\" \\ back\nline\ttab \xF0\x9F\x98\x80 ";
  return odd + std::string(3619 - odd.size(), 'x');
}

void expectClean(const std::string& metrics) {
  std::ofstream("/tmp/metrics") << metrics;
  const Ran ran =
      runShell(testTool("prometheus/usr/bin/promtool") + " check metrics </tmp/metrics");
  EXPECT_EQ(0, ran.status);
  EXPECT_EQ("", ran.out);
  EXPECT_EQ("", ran.err);
}

TEST(Metrics, PageOfAnEngineWithoutProgramsIsClean) {
  ServingEngine engine;
  expectClean(engine.metrics());
  EXPECT_NE(std::string::npos,
            httpHead(engine.port(), "/metrics").find("text/plain; version=0.0.4"));
  EXPECT_EQ(0U, httpHead(engine.port(), "/metrics").find("HTTP/1.1 200"));
  EXPECT_EQ(0U, httpHead(engine.port(), "/nothing").find("HTTP/1.1 404"));
  EXPECT_EQ(0, engine.end(SIGTERM));
}

TEST(Metrics, OddNamesAndEveryKindOfMetricAreClean) {
  ServingEngine engine;
  ASSERT_EQ(3619U, oddTransaction().size());
  const int32_t odd = registerClass(ODD_APPLICATION, oddTransaction());
  report(odd, ARM_GOOD, 3);
  const int32_t broken = registerClass("not \xFF UTF-8", "\xC3");
  report(broken, ARM_FAILED, 3);
  report(registerClass("not \xFE UTF-8", "\xE2"), ARM_FAILED, 3);
  arm_user_data101_t described = {};
  described.format = ARM_DATA_FORMAT_101;
  described.flags[1] = ARM_Metric1_f | ARM_Metric2_f;
  described.metric[0].type = ARM_Counter32;
  std::strcpy(described.metric[0].name, "rows \"read\"\n");
  described.metric[1].type = ARM_Gauge32;
  std::strcpy(described.metric[1].name, "depth");
  const int32_t application = arm_init("measured", "*", 0, nullptr, 0);
  const int32_t id = arm_getid(application, "order", "", 0, &described, sizeof described);
  arm_user_data1_t block = {};
  block.format = ARM_DATA_FORMAT_1;
  block.flags[1] = ARM_Metric1_f | ARM_Metric2_f;
  block.metric[0].value32 = 1234;
  block.metric[1].value32 = -7;
  EXPECT_EQ(0, arm_stop(arm_start(id, 0, nullptr, 0), ARM_GOOD, 0, &block, sizeof block));
  expectClean(engine.metrics());
  EXPECT_EQ(1234, engine.value("arm_user_metric_total{application=\"measured\",transaction="
                               "\"order\",metric=\"rows \\\"read\\\"\\n\"}"));
  EXPECT_EQ(-7, engine.value("arm_user_metric_value{application=\"measured\",transaction="
                             "\"order\",metric=\"depth\"}"));
  EXPECT_EQ(2, engine.value("arm_transactions_total{application=\"not \xEF\xBF\xBD UTF-8\","
                            "transaction=\"\xEF\xBF\xBD\",status=\"failed\"}"))
      << "names that cannot be told apart are one";
  EXPECT_EQ(0, engine.end(SIGTERM));
}

TEST(Metrics, EveryStatusAndEveryRefusalIsCounted) {
  ServingEngine engine;
  const int32_t id = registerClass("shop", "order");
  const std::string labels = "{application=\"shop\",transaction=\"order\"";
  for (const int32_t status : {0, 0, 0, 1, 2, 2, 3, -5}) {
    EXPECT_EQ(0, arm_stop(arm_start(id, 0, nullptr, 0), status, 0, nullptr, 0));
  }
  const int32_t open = arm_start(id, 0, nullptr, 0);
  EXPECT_LT(arm_stop(123456789, 0, 0, nullptr, 0), 0);
  EXPECT_LT(arm_start(123456789, 0, nullptr, 0), 0);
  EXPECT_LT(arm_end(123456789, 0, nullptr, 0), 0);
  EXPECT_EQ(3, engine.value("arm_transactions_total" + labels + ",status=\"good\"}"));
  EXPECT_EQ(1, engine.value("arm_transactions_total" + labels + ",status=\"aborted\"}"));
  EXPECT_EQ(2, engine.value("arm_transactions_total" + labels + ",status=\"failed\"}"));
  EXPECT_EQ(2, engine.value("arm_transactions_total" + labels + ",status=\"unknown\"}"));
  EXPECT_EQ(9, engine.value("arm_transactions_started_total" + labels + "}"));
  EXPECT_EQ(1, engine.value("arm_transactions_in_flight" + labels + "}"));
  EXPECT_EQ(8, engine.value("arm_transaction_duration_seconds_count" + labels + "}"));
  EXPECT_EQ(10, engine.value("arm_engine_requests_total{type=\"start\"}"));
  EXPECT_EQ(9, engine.value("arm_engine_requests_total{type=\"stop\"}"));
  for (const char* reason : {"unknown_handle", "unknown_class", "unknown_application"}) {
    EXPECT_EQ(1, engine.value("arm_engine_requests_refused_total{reason=\"" + std::string(reason) +
                              "\"}"));
  }
  EXPECT_EQ(1024, engine.value("arm_engine_queue_capacity{queue=\"requests\"}"));
  EXPECT_EQ(1, engine.value("arm_engine_requesters"));
  EXPECT_EQ(0, arm_stop(open, 0, 0, nullptr, 0));
  EXPECT_EQ(0, engine.value("arm_transactions_in_flight" + labels + "}"));
  EXPECT_EQ(0, engine.end(SIGTERM));
}

TEST(Metrics, KilledProcessesAreCountedApart) {
  ServingEngine engine;
  const pid_t child = forkChild([] {
    return arm_start(registerClass("shop", "order"), 0, nullptr, 0) > 0 ? kill(getpid(), SIGKILL)
                                                                        : 1;
  });
  EXPECT_EQ(128 + SIGKILL, armtest::exitCodeOf(child));
  const std::string labels = "{application=\"shop\",transaction=\"order\"}";
  EXPECT_TRUE(
      waitUntil([&] { return engine.value("arm_transactions_abandoned_total" + labels) == 1; }));
  EXPECT_EQ(0, engine.value("arm_transactions_in_flight" + labels));
  EXPECT_EQ(0, engine.value("arm_transaction_duration_seconds_count" + labels));
  EXPECT_EQ(0, engine.end(SIGTERM));
}

TEST(Metrics, ChildOfAnUntracedParentAsksNothing) {
  ServingEngine engine({"--sample", "0"});
  const int32_t id = registerClass("shop", "order");
  arm_user_data1_t block = {};
  block.format = ARM_DATA_FORMAT_1;
  block.flags[0] = ARM_CorrReq_f;
  EXPECT_GT(arm_start(id, 0, &block, sizeof block), 0);
  block.flags[0] = ARM_CorrPar_f;
  EXPECT_EQ(IGNOREID, arm_start(id, 0, &block, sizeof block));
  EXPECT_EQ(0, arm_stop(IGNOREID, 0, 0, nullptr, 0));
  EXPECT_EQ(1, engine.value("arm_engine_requests_total{type=\"start\"}"));
  EXPECT_EQ(0, engine.value("arm_engine_requests_total{type=\"stop\"}"));
  EXPECT_EQ(0, engine.end(SIGTERM));
}

TEST(Metrics, PortThatIsTakenIsRefusedInOneSentence) {
  ServingEngine engine;
  const Ran ran = runShell(builtProgram("armengine") + " --prefix other --listen " +
                           std::to_string(engine.port()));
  EXPECT_EQ(1, ran.status);
  EXPECT_EQ("", ran.out);
  EXPECT_EQ(1U, linesWith(ran.err, "cannot listen on 127.0.0.1:")) << ran.err;
  EXPECT_EQ(0, engine.end(SIGTERM));
}

TEST(Metrics, SlowReadersDoNotKeepProgramsWaiting) {
  ServingEngine engine;
  const std::string connect = "exec 3<>/dev/tcp/127.0.0.1/" + std::to_string(engine.port());
  std::vector<pid_t> readers;
  for (int i = 0; i < 20; ++i) {
    readers.push_back(forkChild([&connect] {
      execl("/bin/bash", "bash", "-c", (connect + "; printf GET >&3; sleep 100").c_str(), nullptr);
      return 127;
    }));
  }
  const int32_t id = registerClass("shop", "order");
  for (int i = 0; i < 1000; ++i) report(id, ARM_GOOD, 1);
  for (const pid_t reader : readers) {
    kill(reader, SIGKILL);
    armtest::exitCodeOf(reader);
  }
  EXPECT_EQ(0, engine.end(SIGTERM));
}

// ---- the real scraper ---------------------------------------------------------------------------

std::string escaped(const std::string& text) {
  std::string out;
  for (const char byte : text) {
    char code[4];
    (void)snprintf(code, sizeof code, "%%%02X", static_cast<unsigned>(byte) & 0xFF);
    out += code;
  }
  return out;
}

class Scraper {
 public:
  explicit Scraper(int target) : port_(freePort()) {
    std::ofstream("/tmp/prometheus.yml")
        << "global: {scrape_interval: 200ms, scrape_timeout: 200ms}\n"
        << "scrape_configs:\n- job_name: arm\n  static_configs:\n  - targets: ['127.0.0.1:"
        << target << "']\n";
    const std::vector<std::string> command = {
        testTool("prometheus/usr/bin/prometheus"), "--config.file=/tmp/prometheus.yml",
        "--storage.tsdb.path=/tmp/prometheus", "--log.level=error",
        "--web.listen-address=127.0.0.1:" + std::to_string(port_)};
    running_ = std::make_unique<Background>(command, Background::Begins::silently);
  }
  /// The value of an expression with one result, -1 when it has none.
  double query(const std::string& expression) const {
    const std::string text = httpGet(port_, "/api/v1/query?query=" + escaped(expression));
    const json answer = json::parse(text, nullptr, false);
    if (answer.is_discarded() || answer.value("status", "") != "success") return -1;
    const json& result = answer["data"]["result"];
    if (result.size() != 1) return -1;
    return std::stod(result[0]["value"][1].get<std::string>());
  }

 private:
  static int freePort() {
    const Ran ran = runShell(
        "/usr/bin/python3 -c 'import socket; s=socket.socket(); s.bind((\"127.0.0.1\",0)); "
        "print(s.getsockname()[1])'");
    return std::atoi(ran.out.c_str());
  }

  int port_;
  std::unique_ptr<Background> running_;
};

TEST(Scraped, RateErrorRatioAndPercentileAreThoseOfWhatWasSent) {
  std::string buckets = "0.001";
  for (int i = 2; i <= 100; ++i) buckets += "," + std::to_string(i) + "e-3";
  ServingEngine engine({"--buckets", buckets});
  const int32_t id = registerClass("shop", "order");
  const int32_t odd = registerClass(ODD_APPLICATION, oddTransaction());
  const Scraper scraper(engine.port());
  const std::string own = "{application=\"shop\"}";
  const auto total = [&] { return scraper.query("sum(arm_transactions_total" + own + ")"); };
  ASSERT_TRUE(waitUntil([&] { return total() == 0; })) << "it does not scrape";
  constexpr int COUNT = 200;
  std::vector<int32_t> times;
  for (int i = 0; i < COUNT; ++i) {
    const int32_t milliseconds = (i * 37) % 97 + 1;
    times.push_back(milliseconds);
    report(id, i % 4 == 0 ? ARM_FAILED : i % 50 == 1 ? ARM_ABORT : ARM_GOOD, milliseconds);
  }
  report(odd, ARM_GOOD, 5);
  ASSERT_TRUE(waitUntil([&] { return total() == COUNT; }));
  // The rate covers the samples and at most one interval on either side.
  const double increase = scraper.query("sum(increase(arm_transactions_total" + own + "[1m]))");
  EXPECT_GE(increase, COUNT * 0.99);
  EXPECT_LE(increase, COUNT * 3);
  EXPECT_NEAR(increase / 60, scraper.query("sum(rate(arm_transactions_total" + own + "[1m]))"),
              increase * 0.1);
  const double errors = scraper.query(
      "sum(rate(arm_transactions_total{application=\"shop\",status=~\"failed|aborted\"}[1m])) / "
      "sum(rate(arm_transactions_total{application=\"shop\"}[1m]))");
  const int failed = COUNT / 4;
  int aborted = 0;
  for (int i = 0; i < COUNT; ++i) aborted += i % 4 != 0 && i % 50 == 1 ? 1 : 0;
  EXPECT_NEAR((failed + aborted) / double{COUNT}, errors, 1e-6);
  std::sort(times.begin(), times.end());
  for (const int percent : {50, 95, 99}) {
    const double exact = times[static_cast<size_t>(COUNT * percent / 100) - 1] / 1000.0;
    const double got = scraper.query("histogram_quantile(" + std::to_string(percent / 100.0) +
                                     ", sum by (le) (rate(arm_transaction_duration_seconds_bucket" +
                                     own + "[1m])))");
    EXPECT_NEAR(exact, got, 0.0011) << percent;
  }
  double sum = 0;
  for (const int32_t time : times) sum += time / 1000.0;
  // Over time: after a scrape that took too long there is no value of this moment.
  EXPECT_NEAR(sum,
              scraper.query("last_over_time(arm_transaction_duration_seconds_sum" + own + "[1m])"),
              1e-6);
  EXPECT_EQ(1,
            scraper.query("sum(last_over_time("
                          "arm_transactions_total{transaction=~\"(?s)\\\"quoted.*x{900}\"}[1m]))"));
  EXPECT_EQ(0, engine.end(SIGTERM));
}

}  // namespace
