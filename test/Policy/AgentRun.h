#pragma once

#include <array>
#include <string>
#include <vector>

#include "Support/Process.h"
#include "policy/Plan.h"

namespace PolicyTest {

/// The agent's program over a directory.
class AgentRun : public Support::Program {
 public:
  AgentRun(const std::string& directory, const std::vector<std::string>& arguments);
};

/// What another process finds in the directory: the rows of a unit, those in deletion left out.
Policy::Picture pictureIn(const std::string& directory, unsigned unit);
/// How far the logs of both tables go; 0 for one that is not there.
std::array<std::uint64_t, 2> versionsIn(const std::string& directory);

}  // namespace PolicyTest
