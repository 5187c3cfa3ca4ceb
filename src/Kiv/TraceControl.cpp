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

/// Never destroyed, for traces at exit.
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
  fmt::memory_buffer buffer;
  auto out = fmt::appender(buffer);
  fmt::format_to(out, "{} {} {} {}:{} {}: ", Kiv::TimeText(now).view(), handle.name().view(), level,
                 file, line, function);
  const std::size_t textAt = buffer.size();
  buffer.append(std::string_view(prefix));
  fmt::vformat_to(out, format, args);
  buffer.push_back('\n');
  std::string_view rendered(buffer.data(), buffer.size());
  std::string escaped;
  if (const std::string_view text = rendered.substr(textAt, rendered.size() - textAt - 1);
      Kiv::hasControls(text)) [[unlikely]] {
    escaped = std::string(rendered.substr(0, textAt)) + Kiv::withoutControls(text) + '\n';
    rendered = escaped;
  }
  Kiv::sink().deliver({now, handle.name().view(), level, file, line, function,
                       rendered.substr(textAt, rendered.size() - textAt - 1), rendered});
  errno = errnoBefore;
}
