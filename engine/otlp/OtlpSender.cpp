#include "otlp/OtlpSender.h"

#include <curl/curl.h>
#include <zlib.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <nlohmann/json.hpp>
#include <random>

namespace armengine {

namespace {

using std::chrono::milliseconds;

constexpr milliseconds SHUTDOWN_LIMIT{5000};
constexpr milliseconds FIRST_WAIT{500};
constexpr milliseconds LONGEST_WAIT{30000};
/// A batch that was not taken for so long is given up.
constexpr milliseconds PATIENCE{300000};
constexpr std::size_t MOST_WAITING_BYTES = 64U * 1024 * 1024;
constexpr std::size_t LONGEST_REPLY = 64U * 1024;

std::string gzipped(const std::string& text) {
  constexpr int GZIP_WINDOW = 15 + 16;
  constexpr int MEMORY_LEVEL = 8;
  z_stream stream = {};
  if (deflateInit2(&stream, Z_BEST_SPEED, Z_DEFLATED, GZIP_WINDOW, MEMORY_LEVEL,
                   Z_DEFAULT_STRATEGY) != Z_OK) {
    return {};
  }
  std::string packed(deflateBound(&stream, text.size()), '\0');
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
  stream.avail_in = static_cast<uInt>(text.size());
  stream.next_out = reinterpret_cast<Bytef*>(packed.data());
  stream.avail_out = static_cast<uInt>(packed.size());
  const int result = deflate(&stream, Z_FINISH);
  packed.resize(result == Z_STREAM_END ? stream.total_out : 0);
  (void)deflateEnd(&stream);
  return packed;
}

std::size_t appendReply(char* bytes, std::size_t, std::size_t count, void* text) {
  auto& reply = *static_cast<std::string*>(text);
  reply.append(bytes, std::min(count, LONGEST_REPLY - std::min(LONGEST_REPLY, reply.size())));
  return count;
}

class Headers {
 public:
  ~Headers() { curl_slist_free_all(list_); }
  Headers() = default;
  Headers(const Headers&) = delete;
  Headers& operator=(const Headers&) = delete;
  void add(const std::string& line) { list_ = curl_slist_append(list_, line.c_str()); }
  curl_slist* get() const { return list_; }

 private:
  curl_slist* list_ = nullptr;
};

/// The spans that a receiver has refused although it took the request.
uint64_t rejectedSpans(const std::string& reply) {
  const auto json = nlohmann::json::parse(reply, nullptr, false);
  const auto pointer = nlohmann::json::json_pointer("/partialSuccess/rejectedSpans");
  if (json.is_discarded() || !json.contains(pointer)) return 0;
  const auto& count = json[pointer];
  if (count.is_number_unsigned()) return count.get<uint64_t>();
  return count.is_string() ? std::strtoull(count.get<std::string>().c_str(), nullptr, 10) : 0;
}

/// What the protocol names as worth another try.
bool mayTryAgain(long code) {
  return code == 429 || code == 502 || code == 503 || code == 504;
}

milliseconds withJitter(milliseconds time) {
  thread_local std::minstd_rand random{std::random_device{}()};
  return time * std::uniform_int_distribution<int>(80, 120)(random) / 100;
}

}  // namespace

struct OtlpSender::Reply {
  bool arrived = false;
  long code = 0;
  curl_off_t retry_after = 0;  ///< seconds, 0 when the receiver has named none
  std::string body;
};

OtlpSender::OtlpSender(const OtlpSettings& settings) : settings_(settings) {
  (void)curl_global_init(CURL_GLOBAL_DEFAULT);
  thread_ = std::thread([this] { run(); });
}

OtlpSender::~OtlpSender() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    ending_ = true;
    end_ = Clock::now() + SHUTDOWN_LIMIT;
  }
  change_.notify_all();
  thread_.join();
}

void OtlpSender::consume(const Span& span) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (waiting_.size() >= settings_.most_waiting || waiting_bytes_ >= MOST_WAITING_BYTES) {
    without_room_.add();
    return;
  }
  waiting_bytes_ += span.json.size();
  waiting_.push_back(span);
  if (waiting_.size() == settings_.batch) change_.notify_all();
}

void OtlpSender::run() {
  for (;;) {
    const std::vector<Span> batch = nextBatch();
    if (batch.empty()) return;
    deliver(batch);
  }
}

/// Waits for a full batch, or for the time that a span may wait; empty at the end.
std::vector<Span> OtlpSender::nextBatch() {
  std::unique_lock<std::mutex> lock(mutex_);
  const auto ready = [this] { return ending_ || waiting_.size() >= settings_.batch; };
  do {
    (void)change_.wait_for(lock, settings_.delay, ready);
  } while (waiting_.empty() && !ending_);
  const std::size_t count = std::min(waiting_.size(), settings_.batch);
  std::vector<Span> batch;
  for (std::size_t i = 0; i < count; ++i) {
    waiting_bytes_ -= waiting_.front().json.size();
    batch.push_back(std::move(waiting_.front()));
    waiting_.pop_front();
  }
  return batch;
}

void OtlpSender::deliver(const std::vector<Span>& batch) {
  const std::string text = exportRequest(batch, settings_.resource);
  const std::string body = settings_.gzip ? gzipped(text) : text;
  const auto give_up = Clock::now() + PATIENCE;
  milliseconds backoff = FIRST_WAIT;
  while (!isOver()) {
    milliseconds wait{0};
    const Verdict verdict = post(body, batch.size(), &wait);
    if (verdict == Verdict::done) return;
    if (verdict == Verdict::refused) {
      refused_.add(batch.size());
      return;
    }
    if (wait.count() == 0) wait = withJitter(backoff);
    backoff = std::min(backoff * 2, LONGEST_WAIT);
    if (!pause(wait, give_up)) break;
    retries_.add();
  }
  unsent_.add(batch.size());
}

bool OtlpSender::isOver() {
  const std::lock_guard<std::mutex> lock(mutex_);
  return Clock::now() >= end_;
}

/// Waits before another try; false when there is to be none.  The end of the engine shortens the
/// wait once.
bool OtlpSender::pause(milliseconds time, Clock::time_point give_up) {
  std::unique_lock<std::mutex> lock(mutex_);
  const auto until = Clock::now() + time;
  if (until >= std::min(give_up, end_)) return false;
  const bool was_ending = ending_;
  (void)change_.wait_until(lock, until, [this, was_ending] { return ending_ && !was_ending; });
  return true;
}

OtlpSender::Verdict OtlpSender::post(const std::string& body, std::size_t spans,
                                     milliseconds* wait) {
  const std::unique_ptr<CURL, void (*)(CURL*)> curl(curl_easy_init(), curl_easy_cleanup);
  if (curl == nullptr) return Verdict::again;
  Headers headers;
  headers.add("Content-Type: application/json");
  if (settings_.gzip) headers.add("Content-Encoding: gzip");
  for (const auto& [key, value] : settings_.headers) {
    std::string line = key;
    line += ": ";
    line += value;
    headers.add(line);
  }
  Reply reply;
  curl_easy_setopt(curl.get(), CURLOPT_URL, settings_.url.c_str());
  curl_easy_setopt(curl.get(), CURLOPT_HTTPHEADER, headers.get());
  curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
  curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDS, body.data());
  curl_easy_setopt(curl.get(), CURLOPT_TIMEOUT_MS, static_cast<long>(settings_.timeout.count()));
  curl_easy_setopt(curl.get(), CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, appendReply);
  curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, &reply.body);
  curl_easy_setopt(curl.get(), CURLOPT_USERAGENT, "armengine/" ARM_VERSION);
  curl_easy_setopt(curl.get(), CURLOPT_NOPROGRESS, 0L);
  curl_easy_setopt(curl.get(), CURLOPT_XFERINFODATA, this);
  curl_easy_setopt(
      curl.get(), CURLOPT_XFERINFOFUNCTION,
      +[](void* sender, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
        return static_cast<OtlpSender*>(sender)->isOver() ? 1 : 0;
      });
  if (!settings_.certificate.empty()) {
    curl_easy_setopt(curl.get(), CURLOPT_CAINFO, settings_.certificate.c_str());
  }
  requests_.add();
  reply.arrived = curl_easy_perform(curl.get()) == CURLE_OK;
  curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &reply.code);
  curl_easy_getinfo(curl.get(), CURLINFO_RETRY_AFTER, &reply.retry_after);
  return judge(reply, spans, wait);
}

OtlpSender::Verdict OtlpSender::judge(const Reply& reply, std::size_t spans, milliseconds* wait) {
  if (!reply.arrived) return Verdict::again;
  if (reply.code >= 200 && reply.code < 300) {
    const uint64_t rejected = std::min<uint64_t>(rejectedSpans(reply.body), spans);
    refused_.add(rejected);
    sent_.add(spans - rejected);
    return Verdict::done;
  }
  if (!mayTryAgain(reply.code)) return Verdict::refused;
  *wait = milliseconds(std::min<long long>(reply.retry_after * 1000LL, PATIENCE.count()));
  return Verdict::again;
}

}  // namespace armengine
