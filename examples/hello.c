/* One measured transaction.  Without an engine every call returns a negative number, and handing
 * that on is harmless: the later calls then do nothing. */
#include <stdio.h>

#include "arm.h"

int main(void) {
  arm_int32_t application = arm_init("hello", "*", 0, NULL, 0);
  arm_int32_t greeting = arm_getid(application, "greet", "says hello", 0, NULL, 0);
  arm_int32_t handle = arm_start(greeting, 0, NULL, 0);
  int printed = puts("Hello.");
  arm_int32_t stopped = arm_stop(handle, printed < 0 ? ARM_FAILED : ARM_GOOD, 0, NULL, 0);
  arm_int32_t ended = arm_end(application, 0, NULL, 0);
  if (stopped < 0 || ended < 0) fputs("hello: this was not measured\n", stderr);
  return printed < 0 ? 1 : 0;
}
