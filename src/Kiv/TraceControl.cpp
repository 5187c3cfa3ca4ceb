#include "Kiv/TraceControl.h"

#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>

#include "Fenrik/ForkGuard.h"
#include "Kiv/LineSink.h"
#include "Kiv/Trace.h"
#include "Kiv/TraceRegistry.h"

namespace Kiv {
namespace {

/// Never destroyed, so that destructors at exit can trace.
LineSink<TraceLine>& sink() {
  static auto* const sink = new LineSink<TraceLine>;
  return *sink;
}

const Fenrik::ForkGuard forkGuard(
    Fenrik::ForkOrder::lines, [] { sink(); }, [] {}, [] {});

}  // namespace

TraceSettingException::~TraceSettingException() = default;

void TraceControl::settingIs(std::string_view setting) {
  TraceRegistry::instance().rulesAdd(traceRulesOf(setting));
}

Fenrik::String TraceControl::setting() { return {TraceRegistry::instance().rulesText()}; }

void TraceControl::settingDelAll() { TraceRegistry::instance().rulesDelAll(); }

std::vector<TraceControl::HandleInfo> TraceControl::handles() {
  return TraceRegistry::instance().handles();
}

void TraceControl::sinkIs(int fd) { sink().fdIs(fd); }
void TraceControl::sinkIs(Sink callback) { sink().callbackIs(std::move(callback)); }
void TraceControl::sinkDel() { sink().fdIs(STDERR_FILENO); }
std::uint64_t TraceControl::lostLines() noexcept { return sink().lost(); }

}  // namespace Kiv

template <>
void Fenrik::Impl::vfmtrace<Kiv::TraceHandle>(const Kiv::TraceHandle& handle, unsigned short level,
                                              const char* prefix, const char* file,
                                              const char* function, int line,
                                              std::string_view format,
                                              fmt::format_args args) noexcept {
  const int errnoBefore = errno;
  const auto now = std::chrono::system_clock::now();
  std::string text = prefix + fmt::vformat(format, args);
  if (Kiv::hasControls(text)) text = Kiv::withoutControls(text);
  const std::string rendered = fmt::format("{} {} {} {}:{} {}: {}\n", Kiv::TimeText(now).view(),
                                           handle.name().view(), level, file, line, function, text);
  Kiv::sink().deliver({now, handle.name().view(), level, file, line, function, text, rendered});
  errno = errnoBefore;
}
