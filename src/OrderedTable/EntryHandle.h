#pragma once

#include <cstdint>
#include <set>

#include "Fenrik/Attribute.h"
#include "Fenrik/Format.h"
#include "Fenrik/NodeClass.h"
#include "Fenrik/String.h"
#include "OrderedTable/EntryVersion.h"
#include "OrderedTable/Index.h"
#include "OrderedTable/SwTableId.h"
#include "OrderedTable/TableVersion.h"

namespace Asic {

class OrderedSwTable;

/// Life cycle of a client operation, as reported by its handle.
enum class QUARNBASTIL_EXPORT EntryState : std::uint8_t {
  entryPending = 0,           ///< queued, not committed; dependent operations wait
  entryInLog = 1,             ///< committed, not yet acknowledged by the hardware
  entryStateReserved = 2,     ///< never set
  entryRejected = 3,          ///< failed for a reason outside the table logic
  entryDone = 4,              ///< complete
  entryDependencyFailed = 5,  ///< abandoned because the entry it depends on failed
  entryResourceFailed = 6,    ///< a resource could not be resolved
};

/// "entryPending" and so on; "entryState(7)" for an unknown value.
QUARNBASTIL_EXPORT Fenrik::String entryStateName(EntryState state);

/// Whether the state is one of the failures.
constexpr bool entryFailed(EntryState state) {
  return state == EntryState::entryRejected || state == EntryState::entryDependencyFailed ||
         state == EntryState::entryResourceFailed;
}

/// The part of a handle that a dependent operation uses, independent of the table's family.
///
/// Every change of the state is announced under `kEntryStateField`, so that a resolver waiting for
/// this handle looks again.
class QUARNBASTIL_EXPORT DependencyEntryHandle : public Fenrik::Publishing<Fenrik::Node> {
 public:
  using KivModule = struct EntryHandleModule;
  using KivSelf = DependencyEntryHandle;
  static constexpr std::uint16_t kFieldBase = 128;
  static constexpr Fenrik::FieldId kEntryStateField{kFieldBase + 2};

  FENRIK_ATTRIBUTE_FACT(kFieldBase + 2, entryState, value);
  FENRIK_FUNCTION(kFieldBase + 3, entryTableVersion);
  FENRIK_FUNCTION(kFieldBase + 4, tableName);
  FENRIK_FUNCTION(kFieldBase + 5, tableId);
  FENRIK_FUNCTION(kFieldBase + 6, keyText);

  ~DependencyEntryHandle() override;

  EntryState entryState() const noexcept { return entryState_; }

  virtual void handleEntryState();
  /// Hardware index that a dependent entry needs; none in software tables.
  virtual Index hwIndexForDependentField() const;
  virtual void handleIndexSuggestions(const std::set<Index>& indices) const;
  /// Table of the operation, with the log version of the operation there.
  virtual TableVersion entryTableVersion() const = 0;
  virtual Fenrik::String tableName() const = 0;
  virtual SwTableId tableId() const = 0;
  /// Text form of the key, for diagnostics of waiting operations.
  virtual Fenrik::String keyText() const = 0;

 protected:
  DependencyEntryHandle() = default;

  void entryStateStore(EntryState state) {
    Fenrik::Impl::attributeValueIs(publisher_, kEntryStateField, entryState_, state);
  }

 private:
  EntryState entryState_ = EntryState::entryPending;
};

}  // namespace Asic

template <>
struct fmt::formatter<Asic::EntryState> : Fenrik::TextFormatter {
  auto format(Asic::EntryState state, fmt::format_context& context) const {
    return put(Asic::entryStateName(state).view(), context);
  }
};
