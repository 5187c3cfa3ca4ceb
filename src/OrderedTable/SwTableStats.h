#pragma once

#include "Fenrik/Attribute.h"
#include "Fenrik/NodeClass.h"

namespace Asic {

/// What one software table has done since it was made.
class QUARNBASTIL_EXPORT SwTableStats final
    : public Fenrik::NodeClass<SwTableStats, Fenrik::Publishing<Fenrik::Node>> {
 public:
  static constexpr std::uint16_t kFieldBase = 128;

  ~SwTableStats() override;

  FENRIK_COUNTER(kFieldBase + 2, entryWriteCnt);   // writes that were accepted
  FENRIK_COUNTER(kFieldBase + 3, entryRemoveCnt);  // removes that were accepted
  FENRIK_COUNTER(kFieldBase + 4, commitCnt);       // operations that left the queue, failed or not
  FENRIK_COUNTER(kFieldBase + 5, tableClearCnt);   // clears that found something
  FENRIK_COUNTER(kFieldBase + 6, updateCnt);       // entries that changed and were logged again
  FENRIK_COUNTER(kFieldBase + 7, updateWithFailedResourceCnt);
  FENRIK_COUNTER(kFieldBase + 8, resolveFailCnt);
  FENRIK_COUNTER(kFieldBase + 9, suppressedWriteCnt);     // identical writes that were dropped
  FENRIK_COUNTER(kFieldBase + 10, suppressCheckDiffCnt);  // checks that found a difference
  FENRIK_VALUE(kFieldBase + 11, lastCommitTime, double);  // seconds since 1970, UTC
};

}  // namespace Asic
