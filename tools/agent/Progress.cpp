#include "agent/Progress.h"

#include <fmt/format.h>
#include <unistd.h>

#include "program/Program.h"

namespace Agent {
namespace {

constexpr std::chrono::milliseconds kBarPeriod{100};
constexpr std::chrono::seconds kLinePeriod{1};
constexpr std::size_t kBarWidth = 40;

}  // namespace

Progress::Progress(std::string title, std::size_t total)
    : title_(std::move(title)), total_(total), terminal_(::isatty(STDOUT_FILENO) == 1) {
  next_ = Clock::now() + (terminal_ ? Clock::duration(kBarPeriod) : Clock::duration(kLinePeriod));
}

Progress::~Progress() { clear(); }

void Progress::at(std::size_t done) {
  const auto now = Clock::now();
  if (now < next_) return;
  next_ = now + (terminal_ ? Clock::duration(kBarPeriod) : Clock::duration(kLinePeriod));
  if (done != told_ || terminal_) show(done);
  told_ = done;
}

void Progress::show(std::size_t done) {
  if (!terminal_) {
    Program::print(fmt::format("{}: {} of {} rows\n", title_, done, total_));
    return;
  }
  const std::size_t filled = total_ == 0 ? kBarWidth : done * kBarWidth / total_;
  Program::print(fmt::format("\r\x1b[K{} [{:#<{}}{:.<{}}] {} of {} rows", title_, "", filled, "",
                             kBarWidth - filled, done, total_));
  shown_ = true;
}

void Progress::say(const std::string& text) {
  clear();
  Program::print(text + '\n');
}

void Progress::clear() {
  if (!shown_) return;
  Program::print("\r\x1b[K");
  shown_ = false;
}

}  // namespace Agent
