#pragma once

#include <dlfcn.h>

namespace armtest {

/// The function behind the program's own of this name.  A program that defines a function of the C
/// library's stands before it for the shared libraries too, which --wrap (calls.h) does not reach.
template <typename Function>
Function* nextCall(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace armtest
