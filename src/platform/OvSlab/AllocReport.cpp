#include "OvSlab/AllocReport.h"

#include <fmt/format.h>

#include <iterator>

#include "OvSlab/SlabStats.h"

namespace Kiv {

std::string allocReport() {
  std::string text;
  const auto out = std::back_inserter(text);
  fmt::format_to(out, "{:>14} {:>12} {:>12} {:>14} {:>8}  {}\n", "live bytes", "live", "peak",
                 "total", "size", "class");
  for (const AllocTrackRow& row : allocTrackRows()) {
    fmt::format_to(out, "{:>14} {:>12} {:>12} {:>14} {:>8}  {}\n", row.liveBytes, row.live,
                   row.peak, row.total, row.size, row.typeName);
  }
  const OvSlab::SlabStats slab = OvSlab::stats();
  fmt::format_to(out, "\n{:>14} {:>12} {:>12} {:>14} {:>8}  {}\n", "bytes held", "live", "free",
                 "slabs", "size", "pattern");
  for (const OvSlab::SlabClassStats& row : slab.classes) {
    fmt::format_to(
        out, "{:>14} {:>12} {:>12} {:>14} {:>8}  {}\n", row.bytesHeld, row.objectsLive,
        row.objectsFree, row.slabs, row.objectSize,
        row.pattern == OvSlab::SlabAllocationPattern::perWrite ? "per write" : "long-lived");
  }
  fmt::format_to(out, "{:>14} in all: {} slabs in use, {} empty and kept, {} given back\n",
                 slab.bytesHeld, slab.slabsInUse, slab.slabsKept, slab.slabsReleased);
  return text;
}

}  // namespace Kiv
