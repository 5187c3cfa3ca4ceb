#include "hwwriter/Reference.h"

#include <algorithm>

namespace HwWriter {
namespace {

using Policy::Adjacency;
using Policy::FileKind;

}  // namespace

Reference::Reference(const Options& options) {
  std::vector<Policy::Content> common;
  for (const std::string& file : options.nextHops) {
    common.push_back(Policy::contentOf(file, FileKind::nextHops));
    auto& nextHops = nextHops_.emplace_back();
    for (const auto& nextHop : common.back().nextHops) nextHops[nextHop.id] = nextHop.adjacencies;
  }
  for (const std::string& file : options.redirects) {
    common.push_back(Policy::contentOf(file, FileKind::redirects));
  }
  const auto kind = options.nextHops.empty() ? FileKind::policy : FileKind::redirectingPolicy;
  for (const std::string& file : options.rules) {
    auto contents = common;
    contents.push_back(Policy::contentOf(file, kind));
    for (const std::string& path : options.prefixes) {
      contents.push_back(Policy::contentOf(path, kind));
    }
    lists_.push_back(Policy::wantedOf(contents).rules);
  }
}

bool Reference::agrees(const NextHops& file, std::uint64_t id,
                       const std::vector<Adjacency>& destination) {
  const auto nextHop = file.find(id);
  if (nextHop == file.end()) return false;
  return nextHop->second.empty() || nextHop->second == destination;
}

/// Packets for a next hop that is down are dropped, or go where another file lets them go.
bool Reference::mayOutput(std::size_t file, std::uint64_t id, const Policy::Packet& packet,
                          const std::optional<Adjacency>& output) const {
  const auto takes = [&](const NextHops& nextHops) {
    const auto nextHop = nextHops.find(id);
    if (nextHop == nextHops.end() || nextHop->second.empty()) return false;
    const auto members = static_cast<std::uint32_t>(nextHop->second.size());
    return output == nextHop->second[Policy::memberOf(packet, members)];
  };
  const auto nextHop = nextHops_[file].find(id);
  if (nextHop == nextHops_[file].end()) return false;
  if (!nextHop->second.empty()) return takes(nextHops_[file]);
  return !output || std::ranges::any_of(nextHops_, takes);
}

bool Reference::accepts(const std::vector<Policy::Rule>& list, std::span<const std::size_t> files,
                        const Policy::Packet& packet, const SimAsic::Verdict& verdict) const {
  const Policy::Rule* const rule = Policy::firstMatchingRule(list, packet);
  if (rule == nullptr) return verdict.decision == 0;
  if (verdict.decision != Policy::decisionOf(*rule)) return false;
  if (verdict.redirected != (rule->redirect != 0)) return false;
  return rule->redirect == 0 || std::ranges::any_of(files, [&](std::size_t file) {
           return mayOutput(file, rule->redirect, packet, verdict.output);
         });
}

}  // namespace HwWriter
