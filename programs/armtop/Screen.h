#pragma once

#include <string>

#include "armtop/Poller.h"
#include "armtop/View.h"

namespace armtop {

/// Shows the live table in the terminal until the user ends it.  False, with one sentence in why,
/// when the terminal cannot be used.
bool runScreen(Poller* poller, const std::string& address, Order order, std::string filter,
               std::string* why);

}  // namespace armtop
