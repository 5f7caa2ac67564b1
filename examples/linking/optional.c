/* The same for a program that uses libarm where it is installed, and does without it elsewhere:
 * nothing is linked, the calls are looked up when the program starts. */
#include <arm.h>
#include <dlfcn.h>
#include <stdio.h>
#include <string.h>

struct calls {
  arm_int32_t (*init)(const char*, const char*, arm_int32_t, void*, arm_int32_t);
  arm_int32_t (*getid)(arm_int32_t, const char*, const char*, arm_int32_t, void*, arm_int32_t);
  arm_int32_t (*start)(arm_int32_t, arm_int32_t, void*, arm_int32_t);
  arm_int32_t (*stop)(arm_int32_t, arm_int32_t, arm_int32_t, void*, arm_int32_t);
  arm_int32_t (*end)(arm_int32_t, arm_int32_t, void*, arm_int32_t);
};

/* dlsym has an object pointer for everything; a function's is as large. */
static int find(void* library, const char* name, void* call) {
  void* found = dlsym(library, name);
  memcpy(call, &found, sizeof found);
  return found != NULL;
}

/* The name with the 2 is the one that the interface in these headers belongs to. */
static int load(struct calls* arm) {
  void* library = dlopen("libarm.so.2", RTLD_NOW | RTLD_LOCAL);
  return library != NULL && find(library, "arm_init", &arm->init) &&
         find(library, "arm_getid", &arm->getid) && find(library, "arm_start", &arm->start) &&
         find(library, "arm_stop", &arm->stop) && find(library, "arm_end", &arm->end);
}

int main(void) {
  struct calls arm;
  const int loaded = load(&arm);
  arm_int32_t app = loaded ? arm.init("shop", "*", 0, NULL, 0) : -1;
  arm_int32_t order = loaded ? arm.getid(app, "order", "", 0, NULL, 0) : -1;
  arm_int32_t handle = loaded ? arm.start(order, 0, NULL, 0) : -1;
  int printed = puts("one order");
  arm_int32_t stopped =
      loaded ? arm.stop(handle, printed < 0 ? ARM_FAILED : ARM_GOOD, 0, NULL, 0) : -1;
  if (loaded) arm.end(app, 0, NULL, 0);
  puts(stopped == 0 ? "measured" : "not measured");
  return 0;
}
