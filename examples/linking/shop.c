/* An instrumented program that is linked with libarm. */
#include <arm.h>
#include <stdio.h>

int main(void) {
  arm_int32_t app = arm_init("shop", "*", 0, NULL, 0);
  arm_int32_t order = arm_getid(app, "order", "", 0, NULL, 0);
  arm_int32_t handle = arm_start(order, 0, NULL, 0);
  int printed = puts("one order");
  arm_int32_t stopped = arm_stop(handle, printed < 0 ? ARM_FAILED : ARM_GOOD, 0, NULL, 0);
  arm_end(app, 0, NULL, 0);
  puts(stopped == 0 ? "measured" : "not measured");
  return 0;
}
