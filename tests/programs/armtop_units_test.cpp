// What armtop reads from an engine's page, and what it makes of it.

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <string>

#include "armtop/Figures.h"
#include "armtop/Metrics.h"
#include "armtop/Poller.h"
#include "armtop/View.h"
#include "text/Columns.h"

namespace {

using armtop::Buckets;
using armtop::Figures;
using armtop::Row;
using armtop::Sample;

const double INFINITE = std::numeric_limits<double>::infinity();

// ---- the text format ----------------------------------------------------------------------------

Sample only(const std::string& line) {
  unsigned broken = 0;
  const auto samples = armtop::parseMetrics(line, &broken);
  EXPECT_EQ(1U, samples.size()) << line;
  EXPECT_EQ(0U, broken) << line;
  return samples.empty() ? Sample() : samples.front();
}

TEST(Metrics, SamplesAreRead) {
  const Sample sample = only("arm_x_total{a=\"1\",b_2=\"two words\"} 12.5\n");
  EXPECT_EQ("arm_x_total", sample.name);
  EXPECT_EQ((std::map<std::string, std::string>{{"a", "1"}, {"b_2", "two words"}}), sample.labels);
  EXPECT_EQ(12.5, sample.value);
}

TEST(Metrics, EveryWritingOfTheFormatIsRead) {
  EXPECT_EQ(1, only("x 1").value);
  EXPECT_EQ(1, only("x{} 1").value);
  EXPECT_EQ(1, only("  x { a = \"b\" , } 1 \r\n").value);
  EXPECT_EQ("b", only("x{a=\"b\",}\t1\n").labels.at("a"));
  EXPECT_EQ(-1.5e3, only("x -1.5e3 1700000000000\n").value);
  EXPECT_EQ(INFINITE, only("x +Inf").value);
  EXPECT_EQ(-INFINITE, only("x -Inf").value);
  EXPECT_TRUE(std::isnan(only("x NaN").value));
  EXPECT_EQ("a:b_C9", only("a:b_C9 1").name);
}

TEST(Metrics, EscapesInLabelsAreUndone) {
  EXPECT_EQ("a\"b\\c\nd}", only("x{l=\"a\\\"b\\\\c\\nd}\"} 1").labels.at("l"));
  EXPECT_EQ("größe,=", only("x{l=\"größe,=\"} 1").labels.at("l"));
}

TEST(Metrics, CommentsAndEmptyLinesAreLeftOut) {
  unsigned broken = 0;
  EXPECT_EQ(1U, armtop::parseMetrics("# HELP x y\n\n \t\n#\nx 1\n# EOF\n", &broken).size());
  EXPECT_EQ(0U, broken);
}

TEST(Metrics, BrokenLinesAreCountedAndTheRestIsRead) {
  const std::string lines =
      "x\nx{ 1\nx{a} 1\nx{a=} 1\nx{a=b} 1\nx{a=\"b} 1\nx{a=\"b\\\n{a=\"b\"} 1\n9x 1\nx 1z\nx one\n"
      "x 1 2 3\nx 1 z\nx{a=\"b\";c=\"d\"} 1\nx{a=\"b\" 1\nx{,} 1\n<html>\n";
  unsigned broken = 0;
  EXPECT_EQ(1U, armtop::parseMetrics(lines + "good 1\n", &broken).size());
  EXPECT_EQ(17U, broken);
}

TEST(Metrics, DamagedTextDoesNoHarm) {
  const std::string good =
      "arm_x_total{application=\"a\\\"b\",transaction=\"t\",le=\"0.5\"} 12.5 1\n";
  std::mt19937 random(3);
  for (int round = 0; round < 20000; ++round) {
    std::string text = good + good;
    for (int i = 0; i < 3; ++i) {
      text[random() % text.size()] = static_cast<char>(random() % 256);
    }
    text.resize(random() % text.size());
    unsigned broken = 0;
    EXPECT_LE(armtop::parseMetrics(text, &broken).size(), 5U);
  }
}

// ---- percentiles --------------------------------------------------------------------------------

TEST(Quantile, IsInterpolatedInItsBucket) {
  const Buckets buckets = {{0.1, 0}, {0.2, 100}, {0.4, 200}, {INFINITE, 200}};
  EXPECT_NEAR(0.15, armtop::quantile(buckets, 0.25)->seconds, 1e-9);
  EXPECT_NEAR(0.2, armtop::quantile(buckets, 0.5)->seconds, 1e-9);
  EXPECT_NEAR(0.3, armtop::quantile(buckets, 0.75)->seconds, 1e-9);
  EXPECT_NEAR(0.4, armtop::quantile(buckets, 1)->seconds, 1e-9);
  EXPECT_FALSE(armtop::quantile(buckets, 1)->beyond);
}

TEST(Quantile, FirstBucketBeginsAtZero) {
  EXPECT_NEAR(0.05, armtop::quantile({{0.1, 10}, {INFINITE, 10}}, 0.5)->seconds, 1e-9);
}

TEST(Quantile, BehindTheLastBoundItIsOnlyKnownToBeMore) {
  const auto value = armtop::quantile({{0.1, 1}, {10, 50}, {INFINITE, 100}}, 0.95);
  EXPECT_EQ(10, value->seconds);
  EXPECT_TRUE(value->beyond);
}

TEST(Quantile, WithoutTransactionsThereIsNone) {
  EXPECT_FALSE(armtop::quantile({}, 0.5));
  EXPECT_FALSE(armtop::quantile({{0.1, 0}, {INFINITE, 0}}, 0.5));
  EXPECT_FALSE(armtop::quantile({{INFINITE, std::nan("")}}, 0.5));
}

TEST(Quantile, BucketsThatShrinkDoNoHarm) {
  EXPECT_TRUE(armtop::quantile({{0.1, 50}, {0.2, 10}, {INFINITE, 60}}, 0.99));
  EXPECT_TRUE(armtop::quantile({{0.1, 50}, {INFINITE, 40}}, 0.99));
}

// ---- figures ------------------------------------------------------------------------------------

/// The page of an engine with one class.
std::string page(int good, int failed, int fast, int slow) {
  const std::string labels = "application=\"shop\",transaction=\"order\"";
  const auto line = [&labels](const std::string& name, const std::string& more, int value) {
    return name + "{" + labels + more + "} " + std::to_string(value) + "\n";
  };
  return line("arm_transactions_total", ",status=\"good\"", good) +
         line("arm_transactions_total", ",status=\"aborted\"", 1) +
         line("arm_transactions_total", ",status=\"failed\"", failed) +
         line("arm_transactions_total", ",status=\"unknown\"", 0) +
         line("arm_transactions_started_total", "", good + failed + 4) +
         line("arm_transactions_in_flight", "", 3) +
         line("arm_transactions_abandoned_total", "", 0) +
         line("arm_transaction_duration_seconds_bucket", ",le=\"0.001\"", fast) +
         line("arm_transaction_duration_seconds_bucket", ",le=\"1\"", slow) +
         line("arm_transaction_duration_seconds_bucket", ",le=\"+Inf\"", slow) +
         line("arm_transaction_duration_seconds_count", "", slow) +
         "arm_engine_build_info{version=\"2.0.0\"} 1\n"
         "arm_engine_queue_length{queue=\"requests\"} 5\n"
         "arm_engine_queue_length{queue=\"replies\"} 6\n"
         "arm_engine_queue_capacity{queue=\"requests\"} 1024\n"
         "arm_engine_queue_capacity{queue=\"replies\"} 512\n"
         "arm_engine_requesters 7\n"
         "arm_engine_dropped_total{output=\"otlp\",reason=\"full\"} 2\n"
         "arm_engine_dropped_total{output=\"events\",reason=\"full\"} 3\n"
         "go_goroutines 5\n";
}

Figures figuresOf(const std::string& text, int second) {
  const auto figures =
      armtop::readFigures(text, armtop::Clock::time_point(std::chrono::seconds(second)));
  EXPECT_TRUE(figures);
  return figures.value_or(Figures());
}

TEST(TopFigures, PageOfAnEngineIsUnderstood) {
  const Figures figures = figuresOf(page(10, 2, 6, 13), 0);
  ASSERT_EQ(1U, figures.classes.size());
  const armtop::ClassFigures& one = figures.classes.at({"shop", "order"});
  EXPECT_EQ(10, one.good);
  EXPECT_EQ(1, one.aborted);
  EXPECT_EQ(2, one.failed);
  EXPECT_EQ(13, one.finished());
  EXPECT_EQ(16, one.started);
  EXPECT_EQ(3, one.in_flight);
  EXPECT_EQ((Buckets{{0.001, 6}, {1, 13}, {INFINITE, 13}}), one.buckets);
  EXPECT_EQ("engine 2.0.0  requests 5/1024  requesters 7/512  classes 1  dropped 5",
            armtop::engineLine(figures));
}

TEST(TopFigures, PageOfSomethingElseIsRefused) {
  EXPECT_FALSE(armtop::readFigures("go_goroutines 5\n", {}));
  EXPECT_FALSE(armtop::readFigures("<html>hello</html>\n", {}));
  EXPECT_FALSE(armtop::readFigures("", {}));
}

TEST(TopFigures, RowsSinceTheStartHaveNoRate) {
  const Figures now = figuresOf(page(16, 3, 10, 20), 0);
  const auto rows = armtop::makeRows(nullptr, now);
  ASSERT_EQ(1U, rows.size());
  EXPECT_EQ(20, rows[0].count);
  EXPECT_FALSE(rows[0].rate);
  EXPECT_NEAR(0.2, *rows[0].errors, 1e-9);
  EXPECT_NEAR(0.001, rows[0].p50->seconds, 1e-9);
  EXPECT_EQ(3, rows[0].in_flight);
}

TEST(TopFigures, RowsOfAWindowCountWhatWasAdded) {
  const Figures before = figuresOf(page(16, 3, 10, 20), 100);
  const Figures now = figuresOf(page(76, 13, 80, 90), 110);
  const auto rows = armtop::makeRows(&before, now);
  ASSERT_EQ(1U, rows.size());
  EXPECT_EQ(70, rows[0].count);
  EXPECT_NEAR(7, *rows[0].rate, 1e-9);
  EXPECT_NEAR(10.0 / 70, *rows[0].errors, 1e-9);
  EXPECT_NEAR(0.0005, rows[0].p50->seconds, 1e-9);
}

TEST(TopFigures, QuietWindowHasNoPercentiles) {
  const Figures before = figuresOf(page(16, 3, 10, 20), 100);
  const Figures now = figuresOf(page(16, 3, 10, 20), 110);
  const auto rows = armtop::makeRows(&before, now);
  EXPECT_EQ(0, *rows[0].rate);
  EXPECT_FALSE(rows[0].errors);
  EXPECT_FALSE(rows[0].p99);
}

TEST(TopFigures, EngineThatStartedAnewIsTakenFromItsStart) {
  const Figures before = figuresOf(page(1000, 3, 500, 1004), 100);
  const Figures now = figuresOf(page(6, 3, 10, 10), 110);
  const auto rows = armtop::makeRows(&before, now);
  EXPECT_EQ(10, rows[0].count);
  EXPECT_NEAR(1, *rows[0].rate, 1e-9);
}

// ---- the view -----------------------------------------------------------------------------------

Row row(const std::string& application, const std::string& transaction, double rate) {
  Row one;
  one.name = {application, transaction};
  one.rate = rate;
  one.count = rate * 10;
  return one;
}

std::string orderBy(const std::string& column, bool reversed) {
  std::vector<Row> rows = {row("b", "x", 1), row("a", "z", 3), row("c", "y", 2)};
  rows[0].p95 = armtop::Quantile{5, false};
  rows[1].p95 = armtop::Quantile{7, false};
  armtop::Order order;
  EXPECT_TRUE(armtop::columnNamed(column, &order.column));
  order.reversed = reversed;
  armtop::sortRows(&rows, order);
  return rows[0].name.first + rows[1].name.first + rows[2].name.first;
}

TEST(TopView, RowsAreSortedByAnyColumn) {
  EXPECT_EQ("abc", orderBy("application", false));
  EXPECT_EQ("cba", orderBy("application", true));
  EXPECT_EQ("bca", orderBy("transaction", false));
  EXPECT_EQ("acb", orderBy("rate", false));
  EXPECT_EQ("bca", orderBy("count", true));
  EXPECT_EQ("abc", orderBy("p95", false)) << "what has no percentile comes last";
  armtop::Column column = {};
  EXPECT_FALSE(armtop::columnNamed("size", &column));
}

TEST(TopView, FilterKeepsNamesThatContainIt) {
  const std::vector<Row> rows = {row("shop", "order", 1), row("bank", "shopping", 2),
                                 row("bank", "transfer", 3)};
  EXPECT_EQ(2U, armtop::filterRows(rows, "shop").size());
  EXPECT_EQ(3U, armtop::filterRows(rows, "").size());
  EXPECT_EQ(0U, armtop::filterRows(rows, "Shop").size());
}

TEST(TopView, TimesHaveThreeFiguresAndAUnit) {
  const auto text = [](double seconds) {
    return armtop::readableTime(armtop::Quantile{seconds, false});
  };
  EXPECT_EQ("0 us", text(0));
  EXPECT_EQ("812 us", text(812e-6));
  EXPECT_EQ("999 us", text(999.4e-6));
  EXPECT_EQ("1.00 ms", text(999.6e-6));
  EXPECT_EQ("93.1 ms", text(0.0931));
  EXPECT_EQ("1.00 s", text(0.9996));
  EXPECT_EQ("250 s", text(250));
  EXPECT_EQ(">10.0 s", armtop::readableTime(armtop::Quantile{10, true}));
  EXPECT_EQ("-", armtop::readableTime(std::nullopt));
}

TEST(TopView, NumbersHaveTwoOrThreeFigures) {
  EXPECT_EQ("0", armtop::readableNumber(0));
  EXPECT_EQ("0.05", armtop::readableNumber(0.05));
  EXPECT_EQ("12.3", armtop::readableNumber(12.34));
  EXPECT_EQ("123456", armtop::readableNumber(123456));
  EXPECT_EQ("-", armtop::readableNumber(std::nullopt));
}

TEST(TopView, NamesCannotHarmTheTerminal) {
  armtext::useLocale();
  const auto lines =
      armtop::tableLines({row("evil\x1b[2J\n", std::string(4000, 'x'), 1)}, nullptr, 20);
  ASSERT_EQ(2U, lines.size());
  EXPECT_EQ(0U, lines[1].find("evil?[2J?    xxxxxxxxxxxxxxxxx...  ")) << lines[1];
}

// ---- addresses ----------------------------------------------------------------------------------

TEST(TopAddress, IsReadInEveryWriting) {
  for (const char* text :
       {"127.0.0.1:9464", "http://127.0.0.1:9464", "http://127.0.0.1:9464/", "9464"}) {
    const auto address = armtop::parseAddress(text);
    ASSERT_TRUE(address) << text;
    EXPECT_EQ("127.0.0.1:9464", address->text());
  }
  EXPECT_EQ("::1", armtop::parseAddress("[::1]:80")->host);
  EXPECT_EQ("[::1]:80", armtop::parseAddress("[::1]:80")->text());
  EXPECT_EQ("host", armtop::parseAddress("host:1")->host);
}

TEST(TopAddress, EverythingElseIsRefused) {
  for (const char* text : {"", "x", "host", ":80", "host:", "host:0", "host:65536", "host:8x",
                           "::1:80", "https://host:80", "host:80/metrics", "a b:80", "host:-1"}) {
    EXPECT_FALSE(armtop::parseAddress(text)) << text;
  }
}

}  // namespace
