// The conversion to UTF-8: every converter that ICU brings, any bytes, any capacity.  ICU itself is
// not instrumented, so both buffers lie between bytes that must stay as they are.

#include <unicode/ucnv.h>

#include <cstring>
#include <string>
#include <vector>

#include "Check.h"
#include "Input.h"
#include "armext.h"
#include "intl/intlcodeset.h"

namespace {

constexpr std::size_t MARGIN = 64;
constexpr int32_t CONVERSION_FAILED = -1003;
constexpr int32_t ALREADY_OPEN = -3004;

/// A buffer of count elements with untouched margins on both sides.
template <typename T>
class Fenced {
 public:
  explicit Fenced(std::size_t count) : elements_(count + 2 * MARGIN, filler()), count_(count) {}

  T* get() { return elements_.data() + MARGIN; }
  bool fencesHold() const {
    for (std::size_t i = 0; i < MARGIN; ++i) {
      if (elements_[i] != filler() || elements_[MARGIN + count_ + i] != filler()) return false;
    }
    return true;
  }

 private:
  static T filler() { return static_cast<T>(0x5a5a); }

  std::vector<T> elements_;
  std::size_t count_;
};

/// Whether a text is UTF-8 in its shortest form without surrogates.
bool isUtf8(const char* text, std::size_t length) {
  for (std::size_t i = 0; i < length;) {
    const auto lead = static_cast<uint8_t>(text[i]);
    const std::size_t tail = lead < 0x80 ? 0 : lead < 0xe0 ? 1 : lead < 0xf0 ? 2 : 3;
    if ((lead >= 0x80 && lead < 0xc2) || lead > 0xf4 || i + tail >= length) return false;
    for (std::size_t k = 1; k <= tail; ++k) {
      if ((static_cast<uint8_t>(text[i + k]) & 0xc0) != 0x80) return false;
    }
    const auto second = static_cast<uint8_t>(tail > 0 ? text[i + 1] : 0);
    if ((lead == 0xe0 && second < 0xa0) || (lead == 0xed && second > 0x9f) ||
        (lead == 0xf0 && second < 0x90) || (lead == 0xf4 && second > 0x8f)) {
      return false;
    }
    i += tail + 1;
  }
  return true;
}

void convert(const std::string& source, std::size_t capacity) {
  Exact text(source, true);
  Fenced<UChar> work(capacity);
  Fenced<char> target(capacity);
  const int32_t result =
      ConvertStrUTF8(text.get(), static_cast<long>(capacity), work.get(), target.get());
  CHECK(result == 0 || result == CONVERSION_FAILED);
  CHECK(work.fencesHold() && target.fencesHold());
  if (result == 0) CHECK(isUtf8(target.get(), strnlen(target.get(), capacity)));
}

/// The converter that the input chooses: one of ICU's, now and then one named by the input itself.
void choose(Input& input) {
  FreeIntlICUConverter();
  CHECK(GetExpectedCodeset() == nullptr);
  const auto number = static_cast<int32_t>(input.half() % (ucnv_countAvailable() + 2));
  if (number == ucnv_countAvailable()) return;  // that of the locale, with the first conversion
  const bool shipped = number < ucnv_countAvailable();
  const std::string name = shipped ? ucnv_getAvailableName(number) : input.text(200);
  const Exact copy(name, true);
  const int32_t result = SetExpectedCodeset(const_cast<Exact&>(copy).get());
  if (shipped) CHECK(result == 0);
  CHECK(result == 0 || result == CONVERSION_FAILED);
  CHECK((GetExpectedCodeset() != nullptr) == (result == 0));
  if (result == 0) CHECK(SetExpectedCodeset("UTF-8") == ALREADY_OPEN);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  Input input(data, size);
  choose(input);
  const std::size_t capacity = input.half() % 3700;
  // Twice: the converter keeps state between conversions.
  const std::string first = input.text(4000);
  convert(first, capacity);
  convert(input.text(4000), capacity);
  CHECK(GetExpectedCodeset() != nullptr);
  return 0;
}
