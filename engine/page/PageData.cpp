#include "page/PageData.h"

#include <algorithm>
#include <charconv>
#include <functional>

#include "base/Time.h"
#include "events/JsonWriter.h"

namespace armengine {

namespace {

constexpr const char* JSON = "application/json";
constexpr uint64_t LONGEST_WINDOW = RecentTransactions::SLOTS * RecentTransactions::SLOT_SECONDS;

uint64_t numberOf(const std::string& text, uint64_t otherwise, uint64_t most) {
  uint64_t value = 0;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, value);
  return error != std::errc() || stop != end ? otherwise : std::min(value, most);
}

std::size_t limitOf(const HttpServer::Request& request, uint64_t otherwise, uint64_t most) {
  return static_cast<std::size_t>(numberOf(request.query("limit"), otherwise, most));
}

std::optional<uint64_t> keyFrom(const HttpServer::Request& request) {
  const std::string text = request.query("class");
  if (text.empty()) return std::nullopt;
  uint64_t key = 0;
  (void)std::from_chars(text.data(), text.data() + text.size(), key, 16);
  return key;
}

std::string keyText(uint64_t key) {
  std::string text(16, '0');
  for (auto at = text.rbegin(); at != text.rend(); ++at, key >>= 4) {
    *at = "0123456789abcdef"[key & 0x0F];
  }
  return text;
}

/// The time that an answer is about.
struct Window {
  uint64_t asked = LONGEST_WINDOW;  ///< seconds; 0: since the start
  uint64_t since = 0;               ///< nanoseconds since the epoch
  double seconds = 0;               ///< that have been covered
};

Window windowOf(const EngineView& view, const HttpServer::Request& request) {
  Window window;
  window.asked = numberOf(request.query("window"), LONGEST_WINDOW, LONGEST_WINDOW);
  const uint64_t now = view.recent->now();
  const uint64_t running = now > view.started ? now - view.started : 0;
  const uint64_t covered = window.asked == 0 ? running : std::min(running, window.asked * SECOND);
  // Slots are whole ones: a window begins with one.
  window.since = window.asked == 0 ? 0 : now - std::min(now, window.asked * SECOND);
  window.seconds = std::max(static_cast<double>(covered) / 1e9, 1.0);
  return window;
}

// ---- the table ----------------------------------------------------------------------------------

struct Row {
  std::shared_ptr<const ClassStatistics> entry;  ///< null: all together
  uint64_t key = 0;
  bool known = true;  ///< whether anything is known of the window
  bool has_times = false;
  uint64_t count = 0;
  uint64_t errors = 0;
  uint64_t p50 = 0;
  uint64_t p95 = 0;
  uint64_t p99 = 0;
  uint64_t maximum = 0;

  double errorShare() const {
    return count > 0 ? static_cast<double>(errors) / static_cast<double>(count) : 0;
  }
};

template <typename Times>
void setTimes(const Times& times, uint64_t maximum, Row* row) {
  row->p50 = times.percentile(50);
  row->p95 = times.percentile(95);
  row->p99 = times.percentile(99);
  row->maximum = maximum;
  row->has_times = true;
}

void setStatistics(const DurationCounts& counts, Row* row) {
  row->count = counts.total;
  row->errors = counts.errors;
  setTimes(counts, counts.maximum, row);
}

/// Percentiles since the start take a look at some thousand numbers: they wait until they are
/// needed.
void needTimes(Row* row) {
  if (row->has_times) return;
  setTimes(row->entry->times, row->entry->times.maximum(), row);
}

using Sums = std::map<std::optional<uint64_t>, DurationCounts>;

Row rowOf(std::shared_ptr<const ClassStatistics> entry, bool since_start, const Sums& sums) {
  Row row;
  row.key = keyOf(entry->application, entry->name);
  if (since_start) {
    row.count = entry->count();
    row.errors = entry->failed.get() + entry->aborted.get();
  } else if (const auto sum = sums.find(row.key); sum != sums.end()) {
    setStatistics(sum->second, &row);
  } else {
    row.known = sums.size() <= RecentTransactions::MOST_HISTORIES;
    row.has_times = true;
  }
  row.entry = std::move(entry);
  return row;
}

Row totalOf(const std::vector<Row>& rows, bool since_start, const Sums& sums) {
  Row total;
  if (!since_start) {
    setStatistics(sums.at(std::nullopt), &total);
    return total;
  }
  ResponseTimes times;
  for (const Row& row : rows) {
    total.count += row.count;
    total.errors += row.errors;
    times.merge(row.entry->times);
  }
  setTimes(times, times.maximum(), &total);
  return total;
}

char lowered(char byte) {
  return byte >= 'A' && byte <= 'Z' ? static_cast<char>(byte - 'A' + 'a') : byte;
}

bool contains(const std::string& text, const std::string& piece) {
  return std::search(text.begin(), text.end(), piece.begin(), piece.end(),
                     [](char a, char b) { return lowered(a) == lowered(b); }) != text.end();
}

using Compare = std::function<bool(const Row&, const Row&)>;

template <typename Value>
Compare byValue(Value value) {
  return [value](const Row& a, const Row& b) { return value(a) < value(b); };
}

Compare comparison(const std::string& sort) {
  if (sort == "application") return byValue([](const Row& row) { return row.entry->application; });
  if (sort == "transaction") return byValue([](const Row& row) { return row.entry->name; });
  if (sort == "errors") return byValue([](const Row& row) { return row.errorShare(); });
  if (sort == "p50") return byValue([](const Row& row) { return row.p50; });
  if (sort == "p95") return byValue([](const Row& row) { return row.p95; });
  if (sort == "p99") return byValue([](const Row& row) { return row.p99; });
  if (sort == "in_flight") return byValue([](const Row& row) { return row.entry->open.get(); });
  return byValue([](const Row& row) { return row.count; });
}

/// Rows come by names, which order equal ones.
void sortRows(std::vector<Row>* rows, const HttpServer::Request& request) {
  const std::string sort = request.query("sort");
  if (sort.size() == 3 && sort[0] == 'p') {
    for (Row& row : *rows) needTimes(&row);
  }
  const Compare less = comparison(sort);
  const bool ascending = request.query("order") == "asc";
  std::stable_sort(rows->begin(), rows->end(),
                   [&](const Row& a, const Row& b) { return ascending ? less(a, b) : less(b, a); });
}

void filterRows(std::vector<Row>* rows, const std::string& piece) {
  if (piece.empty()) return;
  const auto other = [&piece](const Row& row) {
    return !contains(row.entry->application, piece) && !contains(row.entry->name, piece);
  };
  rows->erase(std::remove_if(rows->begin(), rows->end(), other), rows->end());
}

void appendNames(JsonWriter* json, uint64_t key, std::string_view application,
                 std::string_view name) {
  json->key("key").text(keyText(key));
  json->key("application").text(application).key("transaction").text(name);
}

/// What is not known is null, and so are percentiles of nothing.
void appendStatistics(JsonWriter* json, const Row& row, double seconds) {
  const auto number = [&](const char* name, bool known, uint64_t value) {
    json->key(name);
    (void)(known ? json->number(value) : json->raw("null"));
  };
  const bool some = row.known && row.count > 0;
  number("count", row.known, row.count);
  number("errors", row.known, row.errors);
  json->key("rate");
  (void)(row.known ? json->real(static_cast<double>(row.count) / seconds) : json->raw("null"));
  number("p50_ns", some, row.p50);
  number("p95_ns", some, row.p95);
  number("p99_ns", some, row.p99);
  number("max_ns", some, row.maximum);
}

void appendTotals(JsonWriter* json, const ClassStatistics& entry) {
  json->key("in_flight").number(entry.open.get());
  json->key("started").number(entry.started.get());
  json->key("good").number(entry.good.get());
  json->key("aborted").number(entry.aborted.get());
  json->key("failed").number(entry.failed.get());
  json->key("unknown").number(entry.unknown.get());
  json->key("abandoned").number(entry.abandoned.get());
}

void appendEngine(JsonWriter* json, const EngineView& view) {
  const uint64_t run = view.registry.engine();
  json->key("engine").openObject().key("run").text(keyText(run)).key("version").text(ARM_VERSION);
  json->key("prefix").text(view.queues.prefix());
  json->key("now_ns").digits(view.recent->now()).key("started_ns").digits(view.started);
  if (const auto queues = view.queues.read(); queues) {
    json->key("requests_waiting").number(queues->requests);
    json->key("request_capacity").number(queues->request_capacity);
    json->key("requesters").number(queues->requesters);
  }
  uint64_t dropped = 0;
  for (const OutputCounter& one : view.drops) {
    if (one.output == view.recent_output && one.name == "ring_full") dropped += one.value();
  }
  json->key("not_shown").number(dropped).closeObject();
}

void appendTotal(JsonWriter* json, const std::vector<Row>& rows, const Row& total, double seconds) {
  uint64_t open = 0;
  for (const Row& row : rows) open += row.entry->open.get();
  json->key("total").openObject().key("classes").number(uint64_t{rows.size()});
  appendStatistics(json, total, seconds);
  json->key("in_flight").number(open).closeObject();
}

HttpAnswer answerWith(std::string body, int status = 200) {
  return {status, JSON, std::move(body)};
}

HttpAnswer refusal(int status, const std::string& sentence) {
  std::string text;
  JsonWriter(&text).openObject().key("error").text(sentence).closeObject();
  return answerWith(std::move(text), status);
}

// ---- instances ----------------------------------------------------------------------------------

void appendFinished(JsonWriter* json, const Finished& one) {
  json->openObject();
  json->key("trace").hex(one.context.trace_id.data(), one.context.trace_id.size());
  json->key("span").hex(one.context.span_id.data(), one.context.span_id.size());
  json->key("parent");
  if (one.context.parent_id == SpanId()) {
    json->raw("null");
  } else {
    json->hex(one.context.parent_id.data(), one.context.parent_id.size());
  }
  appendNames(json, one.of->key, one.of->application, one.of->name);
  json->key("start_ns").digits(one.start).key("duration_ns").number(one.duration);
  json->key("outcome").text(one.abandoned ? "abandoned" : nameOf(one.outcome));
  json->key("status").number(one.status);
  json->key("process").number(one.process).key("thread").number(one.thread).closeObject();
}

bool readHex(std::string_view text, TraceId* id) {
  if (text.size() != id->size() * 2) return false;
  for (std::size_t i = 0; i < id->size(); ++i) {
    const char* begin = text.data() + i * 2;
    if (std::from_chars(begin, begin + 2, (*id)[i], 16).ptr != begin + 2) return false;
  }
  return true;
}

void appendSlot(JsonWriter* json, const RecentTransactions::Slot& slot) {
  const DurationCounts& counts = slot.counts;
  json->openObject().key("slot").number(slot.number);
  json->key("count").number(counts.total).key("errors").number(counts.errors);
  json->key("p50_ns").number(counts.percentile(50)).key("p95_ns").number(counts.percentile(95));
  json->key("p99_ns").number(counts.percentile(99)).key("max_ns").number(counts.maximum);
  json->key("steps").openArray();
  for (unsigned step = 0; step < DurationSteps::COUNT; ++step) {
    if (counts.counts[step] == 0) continue;
    json->openArray().number(step).number(counts.counts[step]).closeArray();
  }
  json->closeArray().closeObject();
}

/// The class of a key with its complete names.
void appendClass(JsonWriter* json, const EngineView& view, uint64_t key) {
  for (const auto& entry : view.registry.statistics()) {
    if (keyOf(entry->application, entry->name) != key) continue;
    json->key("class").openObject();
    appendNames(json, key, entry->application, entry->name);
    appendTotals(json, *entry);
    json->closeObject();
    return;
  }
  json->key("class").raw("null");
}

}  // namespace

HttpAnswer classesData(const EngineView& view, const HttpServer::Request& request) {
  const Window window = windowOf(view, request);
  const bool since_start = window.asked == 0;
  const Sums sums = since_start ? Sums() : view.recent->since(window.since);
  std::vector<Row> rows;
  for (auto& entry : view.registry.statistics()) rows.push_back(rowOf(entry, since_start, sums));
  std::string text;
  JsonWriter json(&text);
  json.openObject();
  appendEngine(&json, view);
  json.key("window_s").number(window.asked).key("covered_s").real(window.seconds);
  appendTotal(&json, rows, totalOf(rows, since_start, sums), window.seconds);
  filterRows(&rows, request.query("filter"));
  sortRows(&rows, request);
  json.key("matching").number(uint64_t{rows.size()});
  rows.resize(std::min(rows.size(), limitOf(request, 100, 500)));
  json.key("classes").openArray();
  for (Row& row : rows) {
    needTimes(&row);
    json.openObject();
    appendNames(&json, row.key, shortened(row.entry->application, ShownClass::LONGEST),
                shortened(row.entry->name, ShownClass::LONGEST));
    appendStatistics(&json, row, window.seconds);
    appendTotals(&json, *row.entry);
    json.closeObject();
  }
  json.closeArray().closeObject();
  return answerWith(std::move(text));
}

HttpAnswer historyData(const EngineView& view, const HttpServer::Request& request) {
  const std::optional<uint64_t> key = keyFrom(request);
  const auto slots = view.recent->history(key);
  std::string text;
  JsonWriter json(&text);
  json.openObject();
  if (key) appendClass(&json, view, *key);
  json.key("slot_s").number(RecentTransactions::SLOT_SECONDS);
  json.key("slots").number(uint64_t{RecentTransactions::SLOTS});
  json.key("now_slot").number(view.recent->now() / SECOND / RecentTransactions::SLOT_SECONDS);
  json.key("step_begins_ns").openArray();
  for (unsigned step = 0; step < DurationSteps::COUNT; ++step) {
    json.number(DurationSteps::beginOf(step));
  }
  json.closeArray().key("points");
  if (slots) {
    json.openArray();
    for (const auto& slot : *slots) appendSlot(&json, slot);
    json.closeArray();
  } else {
    json.raw("null");
  }
  json.closeObject();
  return answerWith(std::move(text));
}

HttpAnswer slowestData(const EngineView& view, const HttpServer::Request& request) {
  const Window window = windowOf(view, request);
  const std::size_t most = limitOf(request, 30, 200);
  std::string text;
  JsonWriter json(&text);
  json.openObject().key("transactions").openArray();
  for (const Finished& one : view.recent->slowest(window.since, keyFrom(request), most)) {
    appendFinished(&json, one);
  }
  json.closeArray().closeObject();
  return answerWith(std::move(text));
}

HttpAnswer traceData(const EngineView& view, const HttpServer::Request& request) {
  TraceId id;
  if (!readHex(std::string_view(request.path).substr(request.path.rfind('/') + 1), &id)) {
    return refusal(400, "a trace id has 32 hexadecimal digits");
  }
  const RecentTransactions::Trace trace = view.recent->trace(id);
  if (trace.spans.empty()) return refusal(404, "this trace is not known, or no longer");
  std::string text;
  JsonWriter json(&text);
  json.openObject().key("trace").hex(id.data(), id.size());
  json.key("complete").boolean(trace.complete).key("spans").openArray();
  for (const Finished& one : trace.spans) appendFinished(&json, one);
  json.closeArray().closeObject();
  return answerWith(std::move(text));
}

}  // namespace armengine
