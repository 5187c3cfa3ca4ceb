#pragma once

#include "Fenrik/Attribute.h"
#include "Fenrik/NodeClass.h"

namespace Asic {

/// Counters of one software table since its creation.
class QUARNBASTIL_EXPORT SwTableStats final
    : public Fenrik::NodeClass<SwTableStats, Fenrik::Publishing<Fenrik::Node>> {
 public:
  using KivModule = Kiv::Module<"SwTableStats", SwTableStats>;
  static constexpr std::uint16_t kFieldBase = 128;

  ~SwTableStats() override;

  FENRIK_COUNTER(kFieldBase + 2, entryWriteCnt);   // accepted writes
  FENRIK_COUNTER(kFieldBase + 3, entryRemoveCnt);  // accepted removes
  // operations taken from the queue, including failed ones
  FENRIK_COUNTER(kFieldBase + 4, commitCnt);
  FENRIK_COUNTER(kFieldBase + 5, tableClearCnt);  // clears of a non-empty table
  FENRIK_COUNTER(kFieldBase + 6, updateCnt);      // changed entries that were logged again
  FENRIK_COUNTER(kFieldBase + 7, updateWithFailedResourceCnt);
  FENRIK_COUNTER(kFieldBase + 8, resolveFailCnt);
  FENRIK_COUNTER(kFieldBase + 9, suppressedWriteCnt);     // identical writes dropped
  FENRIK_COUNTER(kFieldBase + 10, suppressCheckDiffCnt);  // comparisons that found a difference
  FENRIK_VALUE(kFieldBase + 11, lastCommitTime, double);  // seconds since 1970, UTC
};

}  // namespace Asic
