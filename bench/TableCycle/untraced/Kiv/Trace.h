#pragma once

// The library's trace sites without code: the benchmark's measure for what they cost while they are
// off. The sites are still checked, so that what only they use is no unused variable.
#include_next "Kiv/Trace.h"

#undef KIV_TRACE_AS
#define KIV_TRACE_AS(function, handle, level, prefix, format, ...)                            \
  do {                                                                                        \
    if (false) {                                                                              \
      ::Kiv::Impl::traceSite((handle), (level), __FILE__, static_cast<const char*>(function), \
                             __LINE__, (prefix), format __VA_OPT__(, ) __VA_ARGS__);          \
    }                                                                                         \
  } while (false)
