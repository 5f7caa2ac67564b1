/// \file
/// arm.hpp - the calls of arm.h and armext.h for C++17 and later: an application, its transaction
/// classes and its transactions as objects that end themselves.
///
///     arm::application shop("shop");
///     arm::transaction_class order(shop, "order");
///     {
///       arm::transaction measured(order);
///       take_the_order();  // left by an exception, the transaction has failed
///     }
///
/// Header only: a program links libarm and nothing else.  Nothing in here throws, allocates or
/// prints; an object is a few words, and a member function is the call that it names.  Without an
/// engine every object does nothing: ids and handles are then negative, and no call is made with
/// them.
///
/// Threads.  The calls may be made by any number of threads at once.  An object may be used by one
/// thread at a time; an application and a class may be used by many, as long as none moves or
/// assigns to them.
#ifndef ARM_HPP_INCLUDED
#define ARM_HPP_INCLUDED

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <optional>
#include <string_view>
#include <type_traits>

#include "armext.h"

namespace arm {

/// How a transaction ended; the values of arm_stop.
enum class status : arm_int32_t {
  good = ARM_GOOD,      ///< as expected
  aborted = ARM_ABORT,  ///< by a fundamental fault of the system
  failed = ARM_FAILED   ///< the software worked, but the wanted result could not be given
};

/// Type of a metric, as a class describes it; the codes of arm_metric_description_t.
enum class metric_type : arm_int32_t {
  counter32 = ARM_Counter32,
  counter64 = ARM_Counter64,
  counter_ratio32 = ARM_CntrDivr32,  ///< a counter and what it is to be divided by
  gauge32 = ARM_Gauge32,
  gauge64 = ARM_Gauge64,
  gauge_ratio32 = ARM_GaugeDivr32,  ///< a gauge and what it is to be divided by
  id32 = ARM_NumericID32,
  id64 = ARM_NumericID64,
  string8 = ARM_String8,   ///< 8 bytes
  string32 = ARM_String32  ///< 32 bytes; slot 7 only, and nothing else there
};

namespace detail {

inline void copy_text(char* field, std::size_t size, std::string_view text) noexcept {
  const std::size_t length = text.size() < size ? text.size() : size;
  std::memset(field, 0, size);
  if (length > 0) std::memcpy(field, text.data(), length);
}

/// The valid bit of a slot, 1 to 7, in flags[1] of the blocks.
constexpr arm_uint8_t slot_bit(int slot) noexcept {
  return static_cast<arm_uint8_t>(ARM_Metric1_f >> (slot - 1));
}

constexpr int hex_value(char digit) noexcept {
  if (digit >= '0' && digit <= '9') return digit - '0';
  if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
  if (digit >= 'A' && digit <= 'F') return digit - 'A' + 10;
  return -1;
}

}  // namespace detail

/// The 168 bytes by which a transaction is known to its children, wherever they run.  The content
/// is the engine's.  A value: copy it freely.
class correlator {
 public:
  static constexpr std::size_t size = ARM_CORRELATOR_SIZE;

  /// A correlator's text form: two lower-case hexadecimal digits a byte, 336 in all.
  class text {
   public:
    /// The digits, ended by a zero byte; they live as long as this object.
    const char* c_str() const noexcept { return digits_.data(); }
    std::string_view view() const noexcept { return {digits_.data(), 2 * size}; }

   private:
    friend class correlator;
    std::array<char, 2 * size + 1> digits_{};
  };

  /// No correlator: all bytes zero.
  correlator() noexcept : raw_() {}
  explicit correlator(const arm_correlator_t& raw) noexcept : raw_(raw) {}

  /// Whether it names a transaction; one whose length word is zero names none.
  explicit operator bool() const noexcept { return raw_.bytes[0] != 0 || raw_.bytes[1] != 0; }
  const arm_correlator_t& raw() const noexcept { return raw_; }

  text hex() const noexcept {
    constexpr char digits[] = "0123456789abcdef";
    text result;
    for (std::size_t i = 0; i < size; ++i) {
      result.digits_[2 * i] = digits[raw_.bytes[i] >> 4];
      result.digits_[2 * i + 1] = digits[raw_.bytes[i] & 15];
    }
    return result;
  }

  /// Reads a text form, also of a correlator that was cut to its own length: 8 to 336 digits of
  /// either case, an even number; missing bytes are zero.  Nothing when the text is anything else.
  static std::optional<correlator> from_hex(std::string_view digits) noexcept {
    if (digits.size() < 8 || digits.size() > 2 * size || digits.size() % 2 != 0) return {};
    correlator result;
    for (std::size_t i = 0; i < digits.size() / 2; ++i) {
      const int high = detail::hex_value(digits[2 * i]);
      const int low = detail::hex_value(digits[2 * i + 1]);
      if (high < 0 || low < 0) return {};
      result.raw_.bytes[i] = static_cast<arm_uint8_t>(high * 16 + low);
    }
    return result;
  }

  /// The correlator that the parent process has left in the environment, in the variable that
  /// arm_getCorrelatorKey names.  Nothing when there is none.
  static std::optional<correlator> from_environment() noexcept {
    const char* digits = std::getenv(arm_getCorrelatorKey());
    if (digits == nullptr) return {};
    return from_hex(digits);
  }

  /// Leaves the correlator in the environment, for the programs that this process starts from now
  /// on.  False when the variable could not be set.  Like setenv, not to be called while another
  /// thread uses the environment.
  bool to_environment() const noexcept {
    return ::setenv(arm_getCorrelatorKey(), hex().c_str(), 1) == 0;
  }

  /// Takes the correlator out of the environment: programs started from now on are nobody's
  /// children.
  static void clear_environment() noexcept { (void)::unsetenv(arm_getCorrelatorKey()); }

  friend bool operator==(const correlator& a, const correlator& b) noexcept {
    return std::memcmp(a.raw_.bytes, b.raw_.bytes, size) == 0;
  }
  friend bool operator!=(const correlator& a, const correlator& b) noexcept { return !(a == b); }

 private:
  arm_correlator_t raw_;
};

/// The data block of format 1 that goes with a start, an update or a stop: seven metrics, and the
/// correlator.  Always 256 bytes.  Setting a metric marks its slot as valid; the class's
/// descriptions give slots their types and names.
///
/// Slots are template arguments, 1 to 6, so that a wrong one does not compile:
///
///     arm::data_block block;
///     block.counter64<1>(bytes).string32("eu-west");
class data_block {
 public:
  /// An empty block: no metric is valid, no correlator is there or wanted.
  data_block() noexcept : raw_() { raw_.format = ARM_DATA_FORMAT_1; }

  template <int Slot>
  data_block& counter32(arm_int32_t value) noexcept {
    return value32<Slot>(value);
  }
  template <int Slot>
  data_block& counter64(std::int64_t value) noexcept {
    return value64<Slot>(value);
  }
  template <int Slot>
  data_block& counter_ratio32(arm_int32_t value, arm_int32_t divisor) noexcept {
    return ratio32<Slot>(value, divisor);
  }
  template <int Slot>
  data_block& gauge32(arm_int32_t value) noexcept {
    return value32<Slot>(value);
  }
  template <int Slot>
  data_block& gauge64(std::int64_t value) noexcept {
    return value64<Slot>(value);
  }
  template <int Slot>
  data_block& gauge_ratio32(arm_int32_t value, arm_int32_t divisor) noexcept {
    return ratio32<Slot>(value, divisor);
  }
  template <int Slot>
  data_block& id32(arm_int32_t value) noexcept {
    return value32<Slot>(value);
  }
  template <int Slot>
  data_block& id64(std::int64_t value) noexcept {
    return value64<Slot>(value);
  }
  /// At most 8 bytes; the rest of a longer text is left out.
  template <int Slot>
  data_block& string8(std::string_view value) noexcept {
    detail::copy_text(slot<Slot>().string8, sizeof raw_.metric[0].string8, value);
    return *this;
  }
  /// Slot 7: at most 32 bytes; the rest of a longer text is left out.
  data_block& string32(std::string_view value) noexcept {
    raw_.flags[1] = static_cast<arm_uint8_t>(raw_.flags[1] | ARM_String1_f);
    detail::copy_text(raw_.string32, sizeof raw_.string32, value);
    return *this;
  }
  /// Marks every slot as not valid.
  data_block& clear_metrics() noexcept {
    raw_.flags[1] = 0;
    return *this;
  }

  /// Makes the transaction that is started with this block the child of another one; of none, when
  /// the correlator names none.
  data_block& child_of(const arm::correlator& parent) noexcept {
    raw_.correlator = parent.raw();
    set_flag(ARM_CorrPar_f, static_cast<bool>(parent));
    set_flag(ARM_CorrGen_f, false);
    return *this;
  }
  /// The same with the correlator of the environment, if there is one.
  data_block& child_of_environment() noexcept {
    return child_of(arm::correlator::from_environment().value_or(arm::correlator()));
  }
  /// Asks for a correlator of the transaction that is started with this block.
  data_block& want_correlator(bool wanted = true) noexcept {
    return set_flag(ARM_CorrReq_f, wanted);
  }
  /// Asks the engine to trace the transaction.
  data_block& want_trace(bool wanted = true) noexcept { return set_flag(ARM_TraceReq_f, wanted); }

  /// The correlator of the transaction that was started with this block.  Nothing when none was
  /// wanted or given, or when nothing was measured.
  std::optional<arm::correlator> correlator() const noexcept {
    if ((raw_.flags[0] & ARM_CorrGen_f) == 0) return {};
    return arm::correlator(raw_.correlator);
  }

  arm_user_data1_t& raw() noexcept { return raw_; }
  const arm_user_data1_t& raw() const noexcept { return raw_; }

 private:
  template <int Slot>
  arm_metric_t& slot() noexcept {
    static_assert(Slot >= 1 && Slot <= 6, "metric slots are 1 to 6; slot 7 is string32");
    raw_.flags[1] = static_cast<arm_uint8_t>(raw_.flags[1] | detail::slot_bit(Slot));
    arm_metric_t& metric = raw_.metric[Slot - 1];
    // Braces would zero the first member of the union and leave four bytes as they are.
    std::memset(&metric, 0, sizeof metric);
    return metric;
  }
  template <int Slot>
  data_block& value32(arm_int32_t value) noexcept {
    slot<Slot>().value32 = value;
    return *this;
  }
  template <int Slot>
  data_block& value64(std::int64_t value) noexcept {
    const auto bits = static_cast<std::uint64_t>(value);
    arm_metric_t& metric = slot<Slot>();
    metric.value64.low = static_cast<arm_uint32_t>(bits & 0xFFFFFFFFU);
    metric.value64.high = static_cast<arm_uint32_t>(bits >> 32);
    return *this;
  }
  template <int Slot>
  data_block& ratio32(arm_int32_t value, arm_int32_t divisor) noexcept {
    arm_metric_t& metric = slot<Slot>();
    metric.ratio32.value = value;
    metric.ratio32.divisor = divisor;
    return *this;
  }
  data_block& set_flag(int flag, bool on) noexcept {
    const int others = raw_.flags[0] & ~flag;
    raw_.flags[0] = static_cast<arm_uint8_t>(on ? others | flag : others);
    return *this;
  }

  arm_user_data1_t raw_;
};

/// The block of format 101 with which a class describes its metrics.  344 bytes.
class metric_descriptions {
 public:
  metric_descriptions() noexcept : raw_() { raw_.format = ARM_DATA_FORMAT_101; }

  /// Gives a slot, 1 to 7, its type and a name of at most 43 bytes; the rest of a longer one is
  /// left out.  Slot 7 takes string32 and the others take everything else.
  template <int Slot, metric_type Type>
  metric_descriptions& describe(std::string_view name) noexcept {
    static_assert(Slot >= 1 && Slot <= 7, "metric slots are 1 to 7");
    static_assert((Slot == 7) == (Type == metric_type::string32),
                  "string32 is slot 7, and only it");
    arm_metric_description_t& description = raw_.metric[Slot - 1];
    raw_.flags[1] = static_cast<arm_uint8_t>(raw_.flags[1] | detail::slot_bit(Slot));
    description.type = static_cast<arm_int32_t>(Type);
    detail::copy_text(description.name, sizeof description.name - 1, name);
    return *this;
  }

  arm_user_data101_t& raw() noexcept { return raw_; }
  const arm_user_data101_t& raw() const noexcept { return raw_; }

 private:
  arm_user_data101_t raw_;
};

/// A registered application: arm_init when it is made, arm_end when it goes.  Move-only.
class application {
 public:
  /// Registers the application.
  ///   name  1 to 127 bytes
  ///   user  0 to 127 bytes; "*" is the login name of the process's user
  explicit application(const char* name, const char* user = "*") noexcept
      : id_(arm_init(name, user, 0, nullptr, 0)) {}
  ~application() { (void)end(); }
  application(application&& other) noexcept : id_(other.release()) {}
  application& operator=(application&& other) noexcept {
    if (this != &other) {
      (void)end();
      id_ = other.release();
    }
    return *this;
  }
  application(const application&) = delete;
  application& operator=(const application&) = delete;

  /// What arm_init returned; -1 once the application has ended or been moved from.
  arm_int32_t id() const noexcept { return id_; }
  /// Whether it is registered.
  explicit operator bool() const noexcept { return id_ > 0; }

  /// Ends the application now; running transactions may still be stopped.  Returns arm_end's
  /// result, or the negative id when there was nothing to end.
  arm_int32_t end() noexcept {
    const arm_int32_t id = release();
    return id > 0 ? arm_end(id, 0, nullptr, 0) : id;
  }

 private:
  arm_int32_t release() noexcept {
    const arm_int32_t id = id_;
    id_ = -1;
    return id;
  }

  arm_int32_t id_;
};

/// A kind of transaction.  A value that owns nothing: it ends with its application.
class transaction_class {
 public:
  /// Registers the class; equal ones are given equal ids.  Nothing is asked of the engine for an
  /// application that is not registered.
  ///   name    1 to 3619 bytes, unique within the application
  ///   detail  0 to 127 bytes of free text
  explicit transaction_class(const application& of, const char* name,
                             const char* detail = "") noexcept
      : id_(of ? arm_getid(of.id(), name, detail, 0, nullptr, 0) : of.id()) {}
  /// The same with a description of the metrics.
  transaction_class(const application& of, const char* name, const char* detail,
                    metric_descriptions metrics) noexcept
      : id_(of ? arm_getid(of.id(), name, detail, 0, &metrics.raw(), sizeof metrics.raw())
               : of.id()) {}

  /// What arm_getid returned, or the application's negative id.
  arm_int32_t id() const noexcept { return id_; }
  explicit operator bool() const noexcept { return id_ > 0; }

 private:
  arm_int32_t id_;
};

/// A running transaction: arm_start when it is made, arm_stop when it goes.  Its status is then the
/// one that was set; without one it is failed when the scope is left by an exception, else good.
/// Move-only; the transaction goes with the object that it was moved to last.
class transaction {
 public:
  /// Starts a transaction.  Nothing is asked of the engine for a class that is not registered.
  explicit transaction(const transaction_class& of) noexcept
      : handle_(of ? arm_start(of.id(), 0, nullptr, 0) : of.id()) {}
  /// The same with metrics, the correlator of a parent, or the wish for a correlator, which the
  /// block then holds.
  transaction(const transaction_class& of, data_block& block) noexcept
      : handle_(of ? arm_start(of.id(), 0, &block.raw(), sizeof block.raw()) : of.id()) {}
  /// Starts the child of a transaction.
  transaction(const transaction_class& of, const correlator& parent) noexcept
      : transaction(of, data_block().child_of(parent), temporary()) {}

  ~transaction() {
    if (handle_ >= 0) (void)stop(final_status());
  }
  transaction(transaction&& other) noexcept
      : handle_(other.release()), status_(other.status_), exceptions_(other.exceptions_) {}
  transaction& operator=(transaction&& other) noexcept {
    if (this != &other) {
      if (handle_ >= 0) (void)stop(final_status());
      status_ = other.status_;
      exceptions_ = other.exceptions_;
      handle_ = other.release();
    }
    return *this;
  }
  transaction(const transaction&) = delete;
  transaction& operator=(const transaction&) = delete;

  /// What arm_start returned; -1 once the transaction has stopped or been moved from.
  arm_int32_t handle() const noexcept { return handle_; }
  /// Whether it runs and is measured.
  explicit operator bool() const noexcept { return handle_ > 0 && handle_ != IGNOREID; }

  /// Sets the status with which it will be stopped, exception or not.
  void set_status(arm::status status) noexcept { status_ = static_cast<arm_int32_t>(status); }
  /// It will be stopped as failed.
  void fail() noexcept { set_status(arm::status::failed); }
  /// It will be stopped as aborted.
  void abort() noexcept { set_status(arm::status::aborted); }

  /// Reports progress.  Returns arm_update's result, or the negative handle of a transaction that
  /// does not run.
  arm_int32_t update() const noexcept {
    return handle_ < 0 ? handle_ : arm_update(handle_, 0, nullptr, 0);
  }
  /// Reports progress with metrics.
  arm_int32_t update(data_block block) const noexcept {
    return handle_ < 0 ? handle_ : arm_update(handle_, 0, &block.raw(), sizeof block.raw());
  }
  /// Reports progress with a text of at most 1020 bytes; the rest of a longer one is left out.
  arm_int32_t update(std::string_view text) const noexcept {
    if (handle_ < 0) return handle_;
    arm_user_data2_t block;
    block.format = ARM_DATA_FORMAT_2;
    detail::copy_text(block.data, sizeof block.data, text);
    return arm_update(handle_, 0, &block, sizeof block);
  }

  /// Stops the transaction now, with the status that was set, else good.  Returns arm_stop's
  /// result, or the negative handle of a transaction that does not run.
  arm_int32_t stop() noexcept { return stop(set_or(arm::status::good)); }
  arm_int32_t stop(arm::status status) noexcept {
    const arm_int32_t handle = release();
    if (handle < 0) return handle;
    return arm_stop(handle, static_cast<arm_int32_t>(status), 0, nullptr, 0);
  }
  /// Stops it with last values of its metrics.
  arm_int32_t stop(arm::status status, data_block block) noexcept {
    const arm_int32_t handle = release();
    if (handle < 0) return handle;
    return arm_stop(handle, static_cast<arm_int32_t>(status), 0, &block.raw(), sizeof block.raw());
  }

 private:
  static constexpr arm_int32_t not_set = -1;
  struct temporary {};

  transaction(const transaction_class& of, data_block& block, temporary) noexcept
      : transaction(of, block) {}

  static int exceptions_now() noexcept {
#if defined(__cpp_exceptions)
    return std::uncaught_exceptions();
#else
    return 0;
#endif
  }
  arm::status set_or(arm::status other) const noexcept {
    return status_ == not_set ? other : static_cast<arm::status>(status_);
  }
  arm::status final_status() const noexcept {
    const bool left_by_exception = exceptions_now() > exceptions_;
    return set_or(left_by_exception ? arm::status::failed : arm::status::good);
  }
  arm_int32_t release() noexcept {
    const arm_int32_t handle = handle_;
    handle_ = -1;
    return handle;
  }

  arm_int32_t handle_;
  arm_int32_t status_ = not_set;
  /// How many exceptions were under way when it was started: it may itself run in a destructor that
  /// one of them has called.
  int exceptions_ = exceptions_now();
};

// The wire: what these classes hand to the library must be these bytes on every machine.

static_assert(sizeof(data_block) == 256 && std::is_standard_layout_v<data_block>);
static_assert(offsetof(arm_user_data1_t, format) == 0);
static_assert(offsetof(arm_user_data1_t, flags) == 4);
static_assert(offsetof(arm_user_data1_t, metric) == 8);
static_assert(sizeof(arm_metric_t) == 8);
static_assert(offsetof(arm_metric_t, ratio32.value) == 0);
static_assert(offsetof(arm_metric_t, ratio32.divisor) == 4);
static_assert(offsetof(arm_metric_t, value64.low) == 0);
static_assert(offsetof(arm_metric_t, value64.high) == 4);
static_assert(offsetof(arm_user_data1_t, string32) == 56);
static_assert(offsetof(arm_user_data1_t, correlator) == 88);
static_assert(sizeof(correlator) == 168 && std::is_trivially_copyable_v<correlator>);
static_assert(sizeof(arm_user_data2_t) == 1024);
static_assert(offsetof(arm_user_data2_t, data) == 4);
static_assert(sizeof(metric_descriptions) == 344);
static_assert(offsetof(arm_user_data101_t, metric) == 8);
static_assert(sizeof(arm_metric_description_t) == 48);
static_assert(offsetof(arm_metric_description_t, type) == 0);
static_assert(offsetof(arm_metric_description_t, name) == 4);

}  // namespace arm

#endif
