// The tracepoint provider of the benchmark, in the form that LTTng's macros ask for: the header is
// included several times.

#undef LTTNG_UST_TRACEPOINT_PROVIDER
#define LTTNG_UST_TRACEPOINT_PROVIDER bench

#undef LTTNG_UST_TRACEPOINT_INCLUDE
#define LTTNG_UST_TRACEPOINT_INCLUDE "tracepoints.h"

#if !defined(BENCH_TRACEPOINTS_H) || defined(LTTNG_UST_TRACEPOINT_HEADER_MULTI_READ)
#define BENCH_TRACEPOINTS_H

#include <lttng/tracepoint.h>

LTTNG_UST_TRACEPOINT_EVENT(bench, start, LTTNG_UST_TP_ARGS(int, tran_id, int, handle),
                           LTTNG_UST_TP_FIELDS(lttng_ust_field_integer(int, tran_id, tran_id)
                                                   lttng_ust_field_integer(int, handle, handle)))

#endif

#include <lttng/tracepoint-event.h>
