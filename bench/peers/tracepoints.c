#define LTTNG_UST_TRACEPOINT_CREATE_PROBES
#define LTTNG_UST_TRACEPOINT_DEFINE
#include "tracepoints.h"

void benchTrace(int tran_id, int handle);

void benchTrace(int tran_id, int handle) {
  lttng_ust_tracepoint(bench, start, tran_id, handle);
}
