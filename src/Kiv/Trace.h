#pragma once

#include <fmt/core.h>

#include <string_view>
#include <utility>

#include "Fenrik/Export.h"
#include "Fenrik/Module.h"
#include "Kiv/StrepFormatter.h"
#include "Kiv/TraceHandle.h"

namespace Fenrik {
namespace Impl {

/// Formats a message and passes it to the handle's sink. An exception of a formatter terminates the
/// process.
template <class Handle>
void vfmtrace(const Handle& handle, unsigned short level, const char* prefix, const char* file,
              const char* function, int line, std::string_view format,
              fmt::format_args args) noexcept;

template <>
QUARNBASTIL_EXPORT void vfmtrace<Kiv::TraceHandle>(const Kiv::TraceHandle& handle,
                                                   unsigned short level, const char* prefix,
                                                   const char* file, const char* function, int line,
                                                   std::string_view format,
                                                   fmt::format_args args) noexcept;

}  // namespace Impl

/// Traces a message without testing the level, which is the site's task. Not inlined, and
/// instantiated once per list of argument types, to keep sites small.
template <class Handle, class... Args>
[[gnu::noinline, gnu::cold]] void fmtrace(const Handle& handle, unsigned short level,
                                          const char* file, const char* function, int line,
                                          const char* prefix, const char* format,
                                          Args&&... args) noexcept {
  Impl::vfmtrace<Handle>(handle, level, prefix, file, function, line, std::string_view(format),
                         fmt::make_format_args(args...));
}

}  // namespace Fenrik

namespace Kiv::Impl {

consteval bool traceLevelValid(long long level) { return level >= 0 && level < kTraceLevels; }

/// Code of a site whose level is on. The format has been checked against the arguments at compile
/// time.
template <class... Args>
[[gnu::always_inline]] inline void traceSite(const TraceHandle& handle, unsigned short level,
                                             const char* file, const char* function, int line,
                                             const char* prefix, fmt::format_string<Args...> format,
                                             Args&&... args) noexcept {
  Fenrik::fmtrace<TraceHandle, Args...>(handle, level, file, function, line, prefix,
                                        fmt::string_view(format).data(),
                                        std::forward<Args>(args)...);
}

}  // namespace Kiv::Impl

/// A trace site: `KIV_TRACE(_defaultTraceHandle(), 8, "TcamEntrySwTable", " key: {}", key)`.
///
/// `level` is a constant below 16. `prefix` precedes the message unchanged; generic code passes "".
/// `format` is a literal, checked against the arguments at compile time. With the level off a site
/// costs two tests and evaluates neither arguments nor prefix. Pass bit fields as `+field`.
/// passed as `+field`.
#define KIV_TRACE(handle, level, prefix, format, ...) \
  KIV_TRACE_AS(__func__, handle, level, prefix, format __VA_OPT__(, ) __VA_ARGS__)

/// As above under another function's name, for part of an operation that has been moved to a
/// function of its own.
#define KIV_TRACE_AS(function, handle, level, prefix, format, ...)                   \
  do {                                                                               \
    static_assert(::Kiv::Impl::traceLevelValid(level), "a trace level is 0 to 15");  \
    const ::Kiv::TraceHandle& kivTraceHandle = (handle);                             \
    if (__builtin_expect(kivTraceHandle.levelEnabled(level), 0))                     \
      ::Kiv::Impl::traceSite(kivTraceHandle, (level), __FILE__,                      \
                             static_cast<const char*>(function), __LINE__, (prefix), \
                             format __VA_OPT__(, ) __VA_ARGS__);                     \
  } while (false)
