#include "armrun/Measurement.h"

#include <langinfo.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <clocale>
#include <cstring>
#include <thread>

#include "armext.h"
#include "armrun/CorrelatorText.h"

namespace armrun {

namespace {

/// Whether the library has to convert the names.  In UTF-8 (and in ASCII, where other bytes have no
/// meaning) they go as they are, which spares opening a converter.
bool needsConversion() {
  if (std::setlocale(LC_CTYPE, "") == nullptr) return false;
  const char* codeset = nl_langinfo(CODESET);
  if (std::strcmp(codeset, "UTF-8") == 0 || std::strcmp(codeset, "ANSI_X3.4-1968") == 0) {
    return false;
  }
  return SetExpectedCodeset(codeset) == 0;
}

std::string whyNot(const char* call, arm_int32_t result) {
  if (result == -2) return "no engine is running (" + std::string(call) + " gave -2)";
  return "the engine refused it (" + std::string(call) + " gave " + std::to_string(result) + ")";
}

arm_user_data1_t startBlock(const std::string& parent) {
  arm_user_data1_t block = {};
  block.format = ARM_DATA_FORMAT_1;
  block.flags[0] = ARM_CorrReq_f;
  if (fromHex(parent, &block.correlator)) block.flags[0] |= ARM_CorrPar_f;
  return block;
}

}  // namespace

Measurement::Measurement() : event_(eventfd(0, EFD_CLOEXEC)) {}

Measurement& Measurement::begin(const Options& options, const char* parent) {
  // Never destroyed: its thread may wait for an engine for ever.
  static auto* measurement = new Measurement;
  std::thread([&options, text = std::string(parent != nullptr ? parent : "")] {
    measurement->work(options, text);
  }).detach();
  return *measurement;
}

std::string Measurement::correlator() {
  const std::lock_guard<std::mutex> guard(mutex_);
  return correlator_;
}

std::string Measurement::problem() {
  const std::lock_guard<std::mutex> guard(mutex_);
  return problem_;
}

void Measurement::end(arm_int32_t completion_status) {
  const std::lock_guard<std::mutex> guard(mutex_);
  has_ended_ = true;
  completion_status_ = completion_status;
  ended_.notify_one();
}

void Measurement::work(const Options& options, const std::string& parent) {
  start(options, parent);
  tell();
  stop(waitForEnd());
  tell();
}

void Measurement::start(const Options& options, const std::string& parent) {
  const auto convert = static_cast<unsigned char>(needsConversion() ? 1 : 0);
  application_ = w_ArmInit(convert, options.application.c_str(), "*", 0, nullptr, 0);
  const arm_int32_t tran_class = w_ArmGetID(convert, application_, options.transaction.c_str(),
                                            options.detail.c_str(), 0, nullptr, 0);
  arm_user_data1_t block = startBlock(parent);
  // A negative id is no id of a class; zero would be one for the library.
  handle_ = tran_class > 0 ? arm_start(tran_class, 0, &block, sizeof block) : -1;
  const std::lock_guard<std::mutex> guard(mutex_);
  problem_.clear();
  if (application_ <= 0) {
    problem_ = whyNot("arm_init", application_);
  } else if (tran_class <= 0) {
    problem_ = whyNot("arm_getid", tran_class);
  } else if (handle_ < 0) {
    problem_ = whyNot("arm_start", handle_);
  } else if (handle_ == IGNOREID) {
    problem_ = "its parent transaction is not measured either";
  } else if ((block.flags[0] & ARM_CorrGen_f) != 0) {
    correlator_ = toHex(block.correlator);
  }
}

void Measurement::stop(arm_int32_t completion_status) {
  if (handle_ > 0) (void)arm_stop(handle_, completion_status, 0, nullptr, 0);
  if (application_ > 0) (void)arm_end(application_, 0, nullptr, 0);
}

arm_int32_t Measurement::waitForEnd() {
  std::unique_lock<std::mutex> lock(mutex_);
  ended_.wait(lock, [this] { return has_ended_; });
  return completion_status_;
}

void Measurement::tell() const {
  const uint64_t one = 1;
  // Only an overflowing counter makes this fail; it counts to two.
  (void)!write(event_, &one, sizeof one);
}

}  // namespace armrun
