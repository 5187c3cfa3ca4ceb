#ifdef BASTIL_BENCH_LTTNG

#define LTTNG_UST_TRACEPOINT_CREATE_PROBES
#include "Blipline/RingTraceProvider.h"

#endif
