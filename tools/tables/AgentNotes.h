#pragma once

#include <array>

#include "tables/TableKind.h"

/// What `bastil-agent` tells other programs beside its tables: two hashed collections, of next hops
/// and of heads that wait. They are for people; no process depends on them.
namespace Tables {

/// One next hop.
struct NextHopNote {
  /// Request id. Key of the record.
  Word id = 0;
  /// The newest update that every table of actions has taken in, and the newest that is in hardware
  /// everywhere; 0 if none.
  Word acknowledged = 0;
  Word inHardware = 0;
  /// Entries that use it, as the agent counts them.
  Word users = 0;
  /// The update that it had last, and the time of it in milliseconds of the system clock.
  Word update = 0;
  Word updatedAt = 0;
  /// Its name in the file, ended by a zero.
  std::array<char, 48> name{};
};
inline constexpr std::size_t kNextHopNoteWords = sizeof(NextHopNote) / sizeof(Word);
inline constexpr std::string_view kNextHopNotes = "agent/nextHops";
inline constexpr Shape kNextHopNoteShape{Drift::Format::Layout::hashed, "Agent::NextHop",
                                         sizeof(Word), sizeof(NextHopNote)};
/// Scratchpad of the collection: 1 while the agent is at rest, so that its numbers are those of its
/// tables; 0 while it changes them.
inline constexpr Word kNotesAtRest = 1;

/// The head of a group's queue, if it waits.
struct WaitNote {
  /// Number of the group in the agent. Key of the record.
  Word group = 0;
  /// Time since which the head waits, in milliseconds of the system clock.
  Word since = 0;
  /// Table, operation and reason, ended by a zero.
  std::array<char, 240> text{};
};
inline constexpr std::size_t kWaitNoteWords = sizeof(WaitNote) / sizeof(Word);
inline constexpr std::string_view kWaitNotes = "agent/waits";
inline constexpr Shape kWaitNoteShape{Drift::Format::Layout::hashed, "Agent::Wait", sizeof(Word),
                                      sizeof(WaitNote)};

}  // namespace Tables
