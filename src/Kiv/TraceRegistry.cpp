#include "Kiv/TraceRegistry.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include "Fenrik/ForkGuard.h"
#include "Kiv/LineSink.h"

namespace Kiv {

namespace {

const Fenrik::ForkGuard forkGuard(
    Fenrik::ForkOrder::settings, [] { TraceRegistry::instance().lock(); },
    [] { TraceRegistry::instance().unlock(); }, [] { TraceRegistry::instance().unlock(); });

}  // namespace

TraceRegistry::TraceRegistry() {
  const char* const setting = ::secure_getenv("BASTIL_TRACE");
  if (setting == nullptr) return;
  try {
    rules_ = traceRulesOf(setting);
  } catch (const TraceSettingException& refused) {
    lastLineWrite(STDERR_FILENO, withoutControls("BASTIL_TRACE: " + refused.msg().str()) + "\n");
  }
}

TraceRegistry& TraceRegistry::instance() {
  static auto* const registry = new TraceRegistry;
  return *registry;
}

TraceControlRecord* TraceRegistry::record(Fenrik::String name, bool everyLevel) {
  const std::lock_guard lock(mutex_);
  return recordLocked(std::move(name), everyLevel);
}

const TraceMask* TraceRegistry::enter(Fenrik::Atomic<const TraceMask*>& control, const char* name) {
  const std::lock_guard lock(mutex_);
  // If several threads race here, the first one registers the handle.
  if (control.loadRelaxed() == &kTraceHandleNotEntered)
    control.storeRelease(recordLocked(Fenrik::String(name), false));
  return control.loadRelaxed();
}

TraceControlRecord* TraceRegistry::recordLocked(Fenrik::String name, bool everyLevel) {
  std::unique_ptr<Member>& member = members_[std::string(name.view())];
  if (member == nullptr) member = std::make_unique<Member>(std::move(name));
  member->everyLevel |= everyLevel;
  maskUpdate(*member);
  member->control.handleCount.fetchAdd(1);
  return &member->control;
}

void TraceRegistry::rulesAdd(std::vector<TraceRule> rules) {
  const std::lock_guard lock(mutex_);
  for (TraceRule& rule : rules) {
    // A rule supersedes older ones with the same pattern; removing them keeps the list short.
    std::erase_if(rules_, [&](const TraceRule& old) {
      return old.pattern == rule.pattern || rule.pattern == "*";
    });
    rules_.push_back(std::move(rule));
  }
  for (auto& [name, member] : members_) maskUpdate(*member);
}

void TraceRegistry::rulesDelAll() {
  const std::lock_guard lock(mutex_);
  rules_.clear();
  for (auto& [name, member] : members_) maskUpdate(*member);
}

std::string TraceRegistry::rulesText() const {
  const std::lock_guard lock(mutex_);
  std::string text;
  for (const TraceRule& rule : rules_) text += (text.empty() ? "" : " ") + traceRuleText(rule);
  return text;
}

std::vector<TraceControl::HandleInfo> TraceRegistry::handles() const {
  const std::lock_guard lock(mutex_);
  std::vector<TraceControl::HandleInfo> infos;
  for (const auto& [name, member] : members_)
    infos.push_back(
        {member->control.name, member->control.mask(), member->control.handleCount.loadRelaxed()});
  return infos;
}

void TraceRegistry::maskUpdate(Member& member) const {
  std::uint16_t mask = member.everyLevel ? 0xffff : 0;
  for (const TraceRule& rule : rules_)
    if (traceNameFits(rule.pattern, member.control.name.view())) mask = rule.mask;
  member.control.maskIs(mask);
}

}  // namespace Kiv
