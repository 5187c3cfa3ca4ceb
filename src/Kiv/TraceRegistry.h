#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "Kiv/TraceControl.h"
#include "Kiv/TraceHandle.h"
#include "Kiv/TraceSetting.h"

namespace Kiv {

/// The control records of the process by name, and the rules that are in force.
///
/// Any thread.
/// I1. A record, once made, stays where it is for ever.
/// I2. A record's mask is that of the last rule that fits its name.
class TraceRegistry {
 public:
  /// Never destroyed. Begins with the rules of the environment's BASTIL_TRACE, if they can be read;
  /// if not, says so on the standard error output.
  static TraceRegistry& instance();
  /// Around a fork.
  void lock() { mutex_.lock(); }
  void unlock() { mutex_.unlock(); }

  /// The record of that name, made if there is none, for one more handle.
  TraceControlRecord* record(Fenrik::String name, bool everyLevel);

  /// Makes `control`, the first word of a constant handle of that name, point at the record.
  const TraceMask* enter(Fenrik::Atomic<const TraceMask*>& control, const char* name);

  void rulesAdd(std::vector<TraceRule> rules);
  void rulesDelAll();

  std::string rulesText() const;
  std::vector<TraceControl::HandleInfo> handles() const;

 private:
  struct Member {
    explicit Member(Fenrik::String name) : control(std::move(name)) {}
    TraceControlRecord control;
    /// A handle of this name was made with all levels on.
    bool everyLevel = false;
  };

  TraceRegistry();

  TraceControlRecord* recordLocked(Fenrik::String name, bool everyLevel);
  void maskUpdate(Member& member) const;

  mutable std::mutex mutex_;
  /// Records by handle name.
  std::map<std::string, std::unique_ptr<Member>, std::less<>> members_;
  /// Rules in force, oldest first.
  std::vector<TraceRule> rules_;
};

}  // namespace Kiv
