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

/// The process's control records by name, and the rules in force.
///
/// Threads: any.
/// I1. A record is never moved or destroyed.
/// I2. A record's mask is that of the last matching rule.
class TraceRegistry {
 public:
  /// Never destroyed. Starts with the rules in the environment's BASTIL_TRACE; if they are invalid,
  /// reports that on standard error.
  static TraceRegistry& instance();
  /// Called around a fork.
  void lock() { mutex_.lock(); }
  void unlock() { mutex_.unlock(); }

  /// Registers one more handle under the name. Returns the name's record, creating it if need be.
  TraceControlRecord* record(Fenrik::String name, bool everyLevel);

  /// Makes `control`, the first word of a constant handle with this name, point to the record.
  const TraceMask* enter(Fenrik::Atomic<const TraceMask*>& control, const char* name);

  void rulesAdd(std::vector<TraceRule> rules);
  void rulesDelAll();

  std::string rulesText() const;
  std::vector<TraceControl::HandleInfo> handles() const;

 private:
  struct Member {
    explicit Member(Fenrik::String name) : control(std::move(name)) {}
    TraceControlRecord control;
    /// Whether a handle of this name was created with all levels on.
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
