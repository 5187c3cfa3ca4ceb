#include "policy/NextHopFile.h"

#include <fmt/format.h>

#include <algorithm>
#include <unordered_map>

namespace Policy {
namespace {

constexpr std::uint32_t kLastPort = 65535;
/// As many as the resource table holds.
constexpr std::size_t kMostNextHops = 65'536;

Adjacency adjacencyOf(LineReader& line) {
  Adjacency adjacency;
  adjacency.port = line.number(kLastPort, "a port from 0 to 65535 and an address, PORT:ADDRESS");
  line.pass(':', "':' between port and address");
  adjacency.address = line.address();
  if (!line.atBlankOrEnd()) line.fail("a blank after the address");
  return adjacency;
}

std::vector<Adjacency> adjacenciesOf(LineReader& line) {
  if (line.atEnd()) line.fail("an adjacency, PORT:ADDRESS, or \"down\"");
  if (LineReader(line).word() == "down") {
    line.word();
    if (!line.atEnd()) line.fail("nothing after \"down\"");
    return {};
  }
  std::vector<Adjacency> adjacencies;
  for (; !line.atEnd(); line.skipBlanks()) {
    LineReader here = line;
    adjacencies.push_back(adjacencyOf(line));
    if (std::ranges::count(adjacencies, adjacencies.back()) != 1) here.fail("each adjacency once");
    if (adjacencies.size() > NextHop::kMostAdjacencies) {
      here.fail(fmt::format("at most {} adjacencies", NextHop::kMostAdjacencies));
    }
  }
  std::ranges::sort(adjacencies);
  return adjacencies;
}

}  // namespace

std::uint64_t requestIdOf(std::string_view name) noexcept {
  std::uint64_t hash = 0xcbf29ce484222325;  // FNV-1a, as for decisions
  for (const char character : name) {
    hash = (hash ^ static_cast<unsigned char>(character)) * 0x100000001b3;
  }
  return hash == 0 ? 1 : hash;
}

std::vector<NextHop> nextHopsOf(const std::string& file, std::string_view text) {
  std::vector<NextHop> nextHops;
  std::unordered_map<std::uint64_t, std::size_t> known;
  readLines(file, text, [&](LineReader& line, unsigned number) {
    LineReader begin = line;
    if (nextHops.size() == kMostNextHops) {
      begin.fail(fmt::format("at most {} next hops", kMostNextHops));
    }
    NextHop nextHop;
    nextHop.line = number;
    nextHop.name = line.name("the name of a next hop");
    nextHop.id = requestIdOf(nextHop.name);
    const auto [at, isNew] = known.try_emplace(nextHop.id, nextHops.size());
    if (!isNew) {
      const NextHop& other = nextHops[at->second];
      begin.fail(other.name == nextHop.name
                     ? fmt::format("each next hop once; it is in line {} already", other.line)
                     : fmt::format("a name with another fingerprint than \"{}\"", other.name));
    }
    line.skipBlanks();
    nextHop.adjacencies = adjacenciesOf(line);
    nextHops.push_back(std::move(nextHop));
  });
  return nextHops;
}

}  // namespace Policy
