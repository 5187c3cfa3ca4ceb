// The peer's macros include this file several times, so it has no `#pragma once`.
#undef LTTNG_UST_TRACEPOINT_PROVIDER
#define LTTNG_UST_TRACEPOINT_PROVIDER bastil_bench

#undef LTTNG_UST_TRACEPOINT_INCLUDE
#define LTTNG_UST_TRACEPOINT_INCLUDE "Blipline/RingTraceProvider.h"

#if !defined(BASTIL_RING_TRACE_PROVIDER_H) || defined(LTTNG_UST_TRACEPOINT_HEADER_MULTI_READ)
#define BASTIL_RING_TRACE_PROVIDER_H

#include <lttng/tracepoint.h>
#include <stdint.h>

LTTNG_UST_TRACEPOINT_EVENT(bastil_bench, three_numbers,
                           LTTNG_UST_TP_ARGS(int, count, uint16_t, unitId, uint64_t, version),
                           LTTNG_UST_TP_FIELDS(lttng_ust_field_integer(int, count, count)
                                                   lttng_ust_field_integer(uint16_t, unitId, unitId)
                                                       lttng_ust_field_integer(uint64_t, version,
                                                                               version)))

#endif

#include <lttng/tracepoint-event.h>
