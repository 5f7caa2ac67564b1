// The data of the page, asked of a real engine by real clients.

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "armext.h"
#include "outputs.h"
#include "process.h"

namespace {

using armtest::forkChild;
using armtest::httpGet;
using armtest::httpHead;
using armtest::registerClass;
using armtest::report;
using armtest::ServingEngine;
using armtest::waitUntil;
using nlohmann::json;

constexpr double MS_IN_NS = 1e6;
/// A name, not an address that anybody asks.
constexpr const char* SVG = "http://www.w3.org/2000/svg";
const std::string HOSTILE =
    "<script>alert(1)</script>\"quoted\" \\ back\nline\ttab \xF0\x9F\x98\x80";

class PageData : public ::testing::Test {
 protected:
  json get(const std::string& target) const {
    const json answer = json::parse(httpGet(engine_.port(), target), nullptr, false);
    EXPECT_FALSE(answer.is_discarded()) << target;
    return answer;
  }
  json classes(const std::string& query = "") const { return get("/api/classes?" + query); }
  json only(const std::string& query = "") const { return classes(query)["classes"].at(0); }
  bool waitForCount(uint64_t count) const {
    return waitUntil([&] { return classes()["total"]["count"] == count; });
  }

  ServingEngine engine_;
};

TEST_F(PageData, EngineWithoutProgramsHasNoClasses) {
  const json answer = classes();
  EXPECT_EQ(0, answer["total"]["classes"]);
  EXPECT_EQ(0, answer["total"]["count"]);
  EXPECT_TRUE(answer["total"]["p50_ns"].is_null());
  EXPECT_EQ(json::array(), answer["classes"]);
  EXPECT_EQ("", answer["engine"]["prefix"]);
  EXPECT_EQ(1024, answer["engine"]["request_capacity"]);
  EXPECT_EQ(json::array(), get("/api/history")["points"]);
  EXPECT_EQ(json::array(), get("/api/slowest")["transactions"]);
  EXPECT_EQ(0, engine_.end(SIGTERM));
}

TEST_F(PageData, FiguresOfTheTableAreThoseOfWhatWasSent) {
  const int32_t id = registerClass("shop", "order");
  for (int i = 1; i <= 100; ++i) {
    report(id, i % 10 == 0 ? ARM_FAILED : i % 25 == 1 ? ARM_ABORT : ARM_GOOD, i);
  }
  const int32_t open = arm_start(id, 0, nullptr, 0);
  ASSERT_GT(open, 0);
  ASSERT_TRUE(waitForCount(100));
  for (const char* window : {"300", "0"}) {
    const json answer = classes("window=" + std::string(window));
    const json row = answer["classes"].at(0);
    EXPECT_EQ("shop", row["application"]);
    EXPECT_EQ("order", row["transaction"]);
    EXPECT_EQ(100, row["count"]);
    EXPECT_EQ(14, row["errors"]);
    EXPECT_EQ(1, row["in_flight"]);
    EXPECT_EQ(101, row["started"]);
    EXPECT_EQ(86, row["good"]);
    EXPECT_EQ(10, row["failed"]);
    EXPECT_EQ(4, row["aborted"]);
    EXPECT_EQ(100 * MS_IN_NS, row["max_ns"]);
    const double tolerance = window == std::string("0") ? 1.0 / 128 : 0.25;
    for (const int percent : {50, 95, 99}) {
      const double got = row["p" + std::to_string(percent) + "_ns"];
      EXPECT_NEAR(percent * MS_IN_NS, got, percent * MS_IN_NS * tolerance)
          << percent << " of " << window;
    }
    EXPECT_NEAR(100 / answer["covered_s"].get<double>(), row["rate"].get<double>(), 1e-9);
    EXPECT_EQ(row["p95_ns"], answer["total"]["p95_ns"]);
    EXPECT_EQ(14, answer["total"]["errors"]);
    EXPECT_EQ(1, answer["total"]["in_flight"]);
  }
  EXPECT_EQ(0, arm_stop(open, ARM_GOOD, 0, nullptr, 0));
  EXPECT_EQ(0, engine_.end(SIGTERM));
}

TEST_F(PageData, HistoryHasEveryDurationOnce) {
  const int32_t id = registerClass("shop", "order");
  const int32_t other = registerClass("shop", "search");
  for (int i = 0; i < 20; ++i) report(id, i < 5 ? ARM_FAILED : ARM_GOOD, 8);
  for (int i = 0; i < 7; ++i) report(other, ARM_GOOD, 1000);
  ASSERT_TRUE(waitForCount(27));
  const std::string key = only("filter=ORDER")["key"];
  const json history = get("/api/history?class=" + key);
  EXPECT_EQ("order", history["class"]["transaction"]);
  uint64_t count = 0;
  uint64_t errors = 0;
  for (const json& point : history["points"]) {
    count += point["count"].get<uint64_t>();
    errors += point["errors"].get<uint64_t>();
    ASSERT_EQ(1U, point["steps"].size()) << "all took the same time";
    const auto step = point["steps"][0][0].get<std::size_t>();
    EXPECT_LE(history["step_begins_ns"][step].get<double>(), 8 * MS_IN_NS);
    EXPECT_GT(history["step_begins_ns"][step + 1].get<double>(), 8 * MS_IN_NS);
    EXPECT_EQ(point["count"], point["steps"][0][1]);
    EXPECT_EQ(8 * MS_IN_NS, point["max_ns"]);
  }
  EXPECT_EQ(20U, count);
  EXPECT_EQ(5U, errors);
  count = 0;
  const json together = get("/api/history");
  for (const json& point : together["points"]) count += point["count"].get<uint64_t>();
  EXPECT_EQ(27U, count);
  EXPECT_FALSE(together.contains("class"));
  EXPECT_TRUE(get("/api/history?class=0123456789abcdef")["points"].is_null());
  EXPECT_EQ(0, engine_.end(SIGTERM));
}

TEST_F(PageData, ClassesAreSortedFilteredAndLimited) {
  for (int i = 1; i <= 12; ++i) {
    const int32_t id = registerClass(i > 6 ? "stock" : "shop", "class" + std::to_string(100 + i));
    for (int j = 0; j < i; ++j) report(id, j < 12 - i ? ARM_FAILED : ARM_GOOD, 13 - i);
  }
  ASSERT_TRUE(waitForCount(78));
  const auto first = [this](const std::string& query) { return only(query)["transaction"]; };
  EXPECT_EQ("class112", first("sort=count"));
  EXPECT_EQ("class101", first("sort=count&order=asc"));
  EXPECT_EQ("class101", first("sort=p95"));
  EXPECT_EQ("class112", first("sort=p95&order=asc&window=0"));
  EXPECT_EQ("class112", first("sort=transaction"));
  EXPECT_EQ("class107", first("sort=application"));
  EXPECT_EQ("class101", first("sort=errors"));
  json answer = classes("filter=STOCK&limit=2");
  EXPECT_EQ(2U, answer["classes"].size());
  EXPECT_EQ(6, answer["matching"]);
  EXPECT_EQ(12, answer["total"]["classes"]);
  EXPECT_EQ(0U, classes("filter=unheard")["classes"].size());
  EXPECT_EQ(12U, classes("limit=nonsense&sort=nonsense&window=-1")["classes"].size());
  EXPECT_EQ(0, engine_.end(SIGTERM));
}

TEST_F(PageData, HostileAndLongNamesAreShortenedInListsAndCompleteInTheHistory) {
  const std::string longest = HOSTILE + std::string(3619 - HOSTILE.size(), 'x');
  report(registerClass(HOSTILE, longest), ARM_GOOD, 5);
  report(registerClass("not \xFF UTF-8", "\xC3"), ARM_GOOD, 7);
  ASSERT_TRUE(waitForCount(2));
  const json row = only("filter=%3Cscript");
  EXPECT_EQ(HOSTILE, row["application"]);
  const std::string shown = row["transaction"];
  EXPECT_EQ(512U, shown.size());
  EXPECT_EQ(longest.substr(0, 509), shown.substr(0, 509));
  const json whole = get("/api/history?class=" + row["key"].get<std::string>())["class"];
  EXPECT_EQ(longest, whole["transaction"]);
  const json slow = get("/api/slowest")["transactions"];
  EXPECT_EQ("not \xEF\xBF\xBD UTF-8", slow[0]["application"]);
  EXPECT_EQ("\xEF\xBF\xBD", slow[0]["transaction"]);
  EXPECT_EQ(shown, slow[1]["transaction"]);
  const std::string text = httpGet(engine_.port(), "/api/slowest");
  EXPECT_EQ(std::string::npos, text.find('\n'));
  EXPECT_EQ(0, engine_.end(SIGTERM));
}

/// Starts a transaction below another one; its correlator comes back in the block.
int32_t startBelow(int32_t id, arm_user_data1_t* block, const arm_correlator_t* parent) {
  *block = {};
  block->format = ARM_DATA_FORMAT_1;
  block->flags[0] = ARM_CorrReq_f;
  if (parent != nullptr) {
    block->flags[0] |= ARM_CorrPar_f;
    block->correlator = *parent;
  }
  return arm_start(id, 0, block, sizeof *block);
}

TEST_F(PageData, TraceHasItsSpansAlthoughTracesAreSentNowhere) {
  const int32_t id = registerClass("shop", "order");
  arm_user_data1_t top = {};
  arm_user_data1_t middle = {};
  arm_user_data1_t bottom = {};
  const int32_t first = startBelow(id, &top, nullptr);
  const int32_t second = startBelow(registerClass("stock", "reserve"), &middle, &top.correlator);
  const int32_t third = startBelow(registerClass("stock", "count"), &bottom, &middle.correlator);
  EXPECT_EQ(0, arm_stop(third, ARM_FAILED, 0, nullptr, 0));
  EXPECT_EQ(0, arm_stop(second, ARM_ABORT, 0, nullptr, 0));
  EXPECT_EQ(0, arm_stop(first, 77, 0, nullptr, 0));
  ASSERT_TRUE(waitForCount(3));
  const json slow = get("/api/slowest")["transactions"];
  ASSERT_EQ(3U, slow.size());
  EXPECT_EQ("order", slow[0]["transaction"]);
  const std::string id_text = slow[0]["trace"];
  const json trace = get("/api/trace/" + id_text);
  EXPECT_EQ(id_text, trace["trace"]);
  EXPECT_EQ(true, trace["complete"]);
  const json& spans = trace["spans"];
  ASSERT_EQ(3U, spans.size());
  EXPECT_TRUE(spans[0]["parent"].is_null());
  EXPECT_EQ(spans[0]["span"], spans[1]["parent"]);
  EXPECT_EQ(spans[1]["span"], spans[2]["parent"]);
  EXPECT_EQ("unknown", spans[0]["outcome"]);
  EXPECT_EQ(77, spans[0]["status"]);
  EXPECT_EQ("aborted", spans[1]["outcome"]);
  EXPECT_EQ("failed", spans[2]["outcome"]);
  EXPECT_EQ(getpid(), spans[2]["process"]);
  for (const json& span : spans) EXPECT_GT(span["duration_ns"].get<uint64_t>(), 0U);
  EXPECT_EQ(0, engine_.end(SIGTERM));
}

TEST_F(PageData, UnknownAndMalformedTracesAreRefused) {
  EXPECT_EQ(0U, httpHead(engine_.port(), "/api/trace/0123").find("HTTP/1.1 400"));
  EXPECT_EQ(0U,
            httpHead(engine_.port(), "/api/trace/" + std::string(32, 'x')).find("HTTP/1.1 400"));
  EXPECT_EQ(0U,
            httpHead(engine_.port(), "/api/trace/" + std::string(32, 'a')).find("HTTP/1.1 404"));
  EXPECT_TRUE(get("/api/trace/").contains("error"));
  EXPECT_EQ(0, engine_.end(SIGTERM));
}

TEST_F(PageData, NamesOfElsewhereThatLeadHereAreRefused) {
  for (const char* host :
       {"127.0.0.1", "127.0.0.1:80", "localhost", "localhost:9464", "[::1]:80"}) {
    EXPECT_NE(std::string::npos, httpHead(engine_.port(), "/api/classes", host).find(" 200 "))
        << host;
  }
  for (const char* host :
       {"evil.example", "evil.example:9464", "localhost.evil.example", "[evil]"}) {
    EXPECT_NE(std::string::npos, httpHead(engine_.port(), "/api/classes", host).find(" 421 "))
        << host;
    EXPECT_NE(std::string::npos, httpHead(engine_.port(), "/metrics", host).find(" 421 ")) << host;
  }
}

TEST_F(PageData, AbandonedInstancesAreSeenOnceTheirProcessHasEnded) {
  const pid_t child = forkChild([] {
    return arm_start(registerClass("shop", "order"), 0, nullptr, 0) > 0 ? kill(getpid(), SIGKILL)
                                                                        : 1;
  });
  EXPECT_EQ(128 + SIGKILL, armtest::exitCodeOf(child));
  ASSERT_TRUE(waitUntil([&] { return !get("/api/slowest")["transactions"].empty(); }));
  EXPECT_EQ("abandoned", get("/api/slowest")["transactions"][0]["outcome"]);
  EXPECT_EQ(1, only()["abandoned"]);
  EXPECT_EQ(0, only()["count"]);
  EXPECT_EQ(0, engine_.end(SIGTERM));
}

const std::filesystem::path PAGE_SOURCES = ARM_SOURCE_DIR "/engine/page";

/// The names of all sources of the page that are served.
std::vector<std::string> pageFiles() {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(PAGE_SOURCES)) {
    const std::string ending = entry.path().extension();
    if (ending == ".html" || ending == ".css" || ending == ".js" || ending == ".svg") {
      names.push_back(entry.path().filename());
    }
  }
  return names;
}

std::string addressOf(const std::string& name) {
  return name == "index.html" ? "/" : "/" + name;
}

/// A module as it is served: every line at its number, without indentation and comments.
std::string withoutComments(const std::string& module) {
  std::istringstream lines(module);
  std::string text;
  for (std::string line; std::getline(lines, line);) {
    line.erase(0, std::min(line.find_first_not_of(' '), line.size()));
    text += (line.compare(0, 2, "//") == 0 ? "" : line) + "\n";
  }
  return text;
}

TEST_F(PageData, FilesOfThePageAreThoseOfTheSources) {
  const std::vector<std::string> names = pageFiles();
  EXPECT_EQ(16U, names.size());
  for (const std::string& name : names) {
    const std::string source = armtest::contentOf(PAGE_SOURCES / name);
    const std::string path = addressOf(name);
    const bool module = name.substr(name.find('.')) == ".js";
    EXPECT_FALSE(source.empty());
    EXPECT_EQ(module ? withoutComments(source) : source, httpGet(engine_.port(), path)) << path;
    const std::string head = httpHead(engine_.port(), path);
    EXPECT_NE(std::string::npos, head.find("Content-Security-Policy: default-src 'none'; "));
    EXPECT_EQ(std::string::npos, head.find("unsafe"));
    EXPECT_EQ(module, head.find("Content-Type: text/javascript;") != std::string::npos) << path;
    const std::size_t address = source.find("://");
    EXPECT_TRUE(address == std::string::npos || source.find(SVG) == address - 4)
        << path << " asks somebody else";
    EXPECT_EQ(std::string::npos, source.find("innerHTML")) << path;
  }
  EXPECT_EQ(0, engine_.end(SIGTERM));
}

TEST_F(PageData, PageAsksForAllItsFilesAtOnceAndTheyAreSmall) {
  const std::string page = httpGet(engine_.port(), "/");
  std::size_t bytes = 0;
  for (const std::string& name : pageFiles()) {
    bytes += httpGet(engine_.port(), addressOf(name)).size();
    if (name == "index.html") continue;
    EXPECT_NE(std::string::npos, page.find("=\"/" + name + "\"")) << name;
  }
  EXPECT_LE(bytes, 56700U);
  EXPECT_EQ(0, engine_.end(SIGTERM));
}

// ---- the demo -----------------------------------------------------------------------------------

/// What stands behind a label in the demo's list of places.
std::string placeIn(const std::string& text, const std::string& label) {
  const std::size_t at = text.find("\n  " + label + " ");
  if (at == std::string::npos) return "";
  const std::size_t begin = text.find_first_not_of(' ', at + 3 + label.size());
  return text.substr(begin, text.find('\n', begin) - begin);
}

TEST(Demo, ThatKeepsItsEngineSaysWhereToLook) {
  ASSERT_EQ(0, armtest::runShell("mkdir /tmp/tree && echo some words >/tmp/tree/file").status);
  const pid_t demo = forkChild([] {
    return execl("/bin/sh", "sh", "-c",
                 "export ARM_BUILD_I386=" ARM_BUILD_DIR " ARM_BUILD_AMD64=" ARM_BUILD_DIR
                 " ARM_DEMO_TRACES=/tmp/traces ARM_DEMO_LISTEN=0; exec sh " ARM_SOURCE_DIR
                 "/examples/demo.sh --keep /tmp/tree >/tmp/demo 2>&1",
                 nullptr);
  });
  std::string out;
  ASSERT_TRUE(waitUntil([&out] {
    out = armtest::contentOf("/tmp/demo");
    return out.find("\n  traces   /tmp/traces\n") != std::string::npos;
  })) << out;
  const std::string page = placeIn(out, "page");
  ASSERT_EQ(0U, page.find("http://127.0.0.1:")) << out;
  const int port = std::atoi(page.c_str() + 17);
  EXPECT_NE(std::string::npos, httpGet(port, "/").find("<title>armengine</title>"));
  EXPECT_EQ(page + "metrics", placeIn(out, "metrics"));
  EXPECT_NE(std::string::npos, httpGet(port, "/metrics").find("arm_transactions_total"));
  const std::string trace = placeIn(out, "a trace");
  ASSERT_EQ(0U, trace.find(page + "#trace=")) << out;
  const std::string id = trace.substr(trace.size() - 32);
  // The page reads behind a ring of its own.
  EXPECT_TRUE(waitUntil([&] {
    return httpGet(port, "/api/trace/" + id).find("\"trace\":\"" + id) != std::string::npos;
  })) << httpGet(port, "/api/trace/" + id);
  EXPECT_EQ(0, kill(demo, SIGINT));
  EXPECT_EQ(0, armtest::exitCodeOf(demo)) << armtest::contentOf("/tmp/demo");
}

TEST(PageOfAPrefix, NamesItAndUntracedTransactionsAreShownToo) {
  (void)setenv("ARM_AGENT_PREFIX", "it's", 1);
  ServingEngine engine({"--sample", "0"});
  const int32_t id = registerClass("shop", "order");
  EXPECT_EQ(0, arm_stop(arm_start(id, 0, nullptr, 0), ARM_GOOD, 0, nullptr, 0));
  json slow;
  ASSERT_TRUE(waitUntil([&] {
    slow = json::parse(httpGet(engine.port(), "/api/slowest"))["transactions"];
    return !slow.empty();
  }));
  EXPECT_EQ("order", slow[0]["transaction"]);
  EXPECT_EQ("it's", json::parse(httpGet(engine.port(), "/api/classes"))["engine"]["prefix"]);
  EXPECT_EQ(0, engine.end(SIGTERM));
}

}  // namespace
