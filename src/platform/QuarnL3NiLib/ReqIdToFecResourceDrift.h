#pragma once

#include "Drift/FlatValue.h"
#include "Drift/RecordText.h"
#include "KivSharedMem/Collection.h"
#include "OrderedTable/EntryHandle.h"
#include "QuarnL3NiLib/ReqIdToFecResourceTableEntryKey.h"

namespace QuarnL3NiLib {

/// The value of one request id.
struct QUARNBASTIL_EXPORT ReqIdToFecResourceRecord final
    : Drift::FlatValue<ReqIdToFecResourceRecord> {
  using Key = ReqIdToFecResourceTableEntryKey;

  Key requestId;
  /// 0: none.
  std::uint32_t destId = 0;
  /// The resource's state.
  Asic::EntryState state = Asic::EntryState::entryPending;
  /// Number of changes of state and destination so far.
  std::uint32_t updateNumber = 0;

  static constexpr auto fields() {
    using Self = ReqIdToFecResourceRecord;
    return std::array{DRIFT_FIELD_AT(Self, requestId, 0), DRIFT_FIELD_AT(Self, destId, 8),
                      DRIFT_FIELD_AT(Self, state, 12), DRIFT_FIELD_AT(Self, updateNumber, 16)};
  }
};
static_assert(sizeof(ReqIdToFecResourceRecord) == 20);

/// The values of the resource table, beside the tables that use them.
///
/// Process and thread: written by the agent on the table thread, before a value is announced; read
/// by the agent that takes over, and by tools.
class QUARNBASTIL_EXPORT ReqIdToFecResourceDrift final
    : public KivSharedMem::HashedCollection<ReqIdToFecResourceDrift, ReqIdToFecResourceRecord> {
 public:
  static constexpr std::string_view kEntityName = "QuarnL3NiLib::ReqIdToFecResourceDrift";
  static constexpr std::string_view kAttributeName = "resource";
  static constexpr const char* kPath =
      "hardware/resource/QuarnL3NiLib::ReqIdToFecResourceTable.TrafficPolicyIntfInput";
  /// One for each row of the largest table that refers to next hops.
  static constexpr Drift::Word kCapacity = 65536;

  using HashedCollection::HashedCollection;

  void resourceIs(const ReqIdToFecResourceRecord& record) { recordIs(record); }
  void resourceDel(const ReqIdToFecResourceTableEntryKey& key) { recordDel(key); }
  /// Copies of all undamaged records, in no particular order.
  std::vector<ReqIdToFecResourceRecord> resources();
};

}  // namespace QuarnL3NiLib
