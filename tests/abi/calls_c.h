#ifndef CALLS_C_H_INCLUDED
#define CALLS_C_H_INCLUDED

/* What a C program sees of the public headers. */

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef void (*any_function)(void);

struct exported_call {
  const char* name;
  any_function address;
};

struct layout_fact {
  const char* what;
  size_t found;
  size_t expected;
};

/* Both end in an entry without a name. */
extern const struct exported_call calls_of_c[];
extern const struct layout_fact layout_of_c[];

#ifdef __cplusplus
}
#endif

#endif
