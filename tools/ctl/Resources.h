#pragma once

#include <optional>
#include <string>
#include <vector>

#include "OrderedTable/EntryHandle.h"
#include "ctl/Command.h"
#include "ctl/Findings.h"
#include "tables/AgentNotes.h"

namespace Ctl {

/// One resource, as the shared memory has it.
struct ResourcePicture {
  Word id = 0;
  /// Its value; nullopt for an id that rows use and that has none.
  struct Value {
    std::uint32_t destId = 0;
    Asic::EntryState state = Asic::EntryState::entryPending;
    std::uint32_t updateNumber = 0;
  };
  std::optional<Value> value;
  /// Live entries that use it, and those of them with another destination.
  std::size_t users = 0;
  std::size_t strays = 0;
  /// What its agent notes, if it does.
  std::optional<Tables::NextHopNote> note;

  /// The name, or the number of one without.
  std::string name() const;
};

/// All resources, by name.
struct ResourcesPicture {
  std::vector<ResourcePicture> resources;
  /// Whether there are notes, and whether they are of an agent at rest.
  bool noted = false;
  bool atRest = false;
  /// Collections that cannot be read.
  std::vector<std::string> problems;
};

ResourcesPicture resourcesPictureOf(const Drift::Directory& directory);

/// Checks that each entry has its resource's destination, and that the users add up. Before an
/// agent has come to rest this may be otherwise, which is noted.
void checkResources(const Drift::Directory& directory, Findings& findings);

/// "the agent waits ..." for each waiting head.
std::vector<std::string> waitsOfAgent(const Drift::Directory& directory);

}  // namespace Ctl
