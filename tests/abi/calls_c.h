#ifndef CALLS_C_H_INCLUDED
#define CALLS_C_H_INCLUDED

/* What a C program sees of the public headers. */

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef void (*AnyFunction)(void);

struct ExportedCall {
  const char* name;
  AnyFunction address;
};

struct LayoutFact {
  const char* what;
  size_t found;
  size_t expected;
};

/* Both end in an entry without a name. */
extern const struct ExportedCall CALLS_OF_C[];
extern const struct LayoutFact LAYOUT_OF_C[];

#ifdef __cplusplus
}
#endif

#endif
