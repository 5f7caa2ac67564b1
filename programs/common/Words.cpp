#include "common/Words.h"

namespace armtools {

std::string counted(unsigned long number, const std::string& singular) {
  const bool hisses = !singular.empty() && singular.back() == 's';
  return std::to_string(number) + " " + singular + (number == 1 ? "" : hisses ? "es" : "s");
}

}  // namespace armtools
