// A program that other users may start with privileges of its own: registers an application, and
// exits with what the call returned.

#include "armext.h"

int main() {
  return arm_init("a", "u", 0, nullptr, 0);
}
