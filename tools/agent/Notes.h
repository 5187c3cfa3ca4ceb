#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <string>

#include "Drift/HashedCollection.h"
#include "tables/AgentNotes.h"

namespace Agent {

/// Writes what other programs are told about next hops and waiting heads. A note that is the same
/// as before costs a comparison.
///
/// Threads: one. Processes: one at a time.
class Notes {
 public:
  /// Creates the collections, or takes them over. Throws `Drift::MountException`.
  explicit Notes(const std::string& directory);
  ~Notes();
  Notes(const Notes&) = delete;
  Notes& operator=(const Notes&) = delete;

  /// Whether the tables are as the notes say. Call with false before changing anything.
  void atRestIs(bool atRest);
  /// Stores a next hop. The time of its update is the present one if the update is a new one.
  void nextHopIs(Tables::NextHopNote note, const std::string& name);
  /// Removes the next hops that were not stored since the last call.
  void othersDel();
  /// Stores why the head of a group waits, and for how long it has; empty if it does not.
  void waitIs(unsigned group, const std::string& text, std::chrono::nanoseconds age);

 private:
  struct File;

  std::unique_ptr<File> nextHopFile_;
  std::unique_ptr<File> waitFile_;
  struct Stored {
    Tables::NextHopNote note;
    bool current = false;
  };
  std::map<Tables::Word, Stored> nextHops_;
  std::map<unsigned, std::string> waits_;
};

}  // namespace Agent
