#include "OvSlab/AllocReport.h"

#include <fmt/format.h>

#include "OvSlab/SlabStats.h"

namespace Kiv {

std::string allocReport() {
  std::string text;
  text += fmt::format("{:>14} {:>12} {:>12} {:>14} {:>8}  {}\n", "live bytes", "live", "peak",
                      "total", "size", "class");
  for (const AllocTrackRow& row : allocTrackRows()) {
    text += fmt::format("{:>14} {:>12} {:>12} {:>14} {:>8}  {}\n", row.liveBytes, row.live,
                        row.peak, row.total, row.size, row.typeName);
  }
  const OvSlab::SlabStats slab = OvSlab::stats();
  text += fmt::format("\n{:>14} {:>12} {:>12} {:>14} {:>8}  {}\n", "bytes held", "live", "free",
                      "slabs", "size", "pattern");
  for (const OvSlab::SlabClassStats& row : slab.classes) {
    text += fmt::format(
        "{:>14} {:>12} {:>12} {:>14} {:>8}  {}\n", row.bytesHeld, row.objectsLive, row.objectsFree,
        row.slabs, row.objectSize,
        row.pattern == OvSlab::SlabAllocationPattern::perWrite ? "per write" : "long-lived");
  }
  text += fmt::format("{:>14} in all: {} slabs in use, {} empty and kept, {} given back\n",
                      slab.bytesHeld, slab.slabsInUse, slab.slabsKept, slab.slabsReleased);
  return text;
}

}  // namespace Kiv
