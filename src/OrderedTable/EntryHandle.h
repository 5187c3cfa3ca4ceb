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

/// The life of one client operation as its handle shows it.
enum class QUARNBASTIL_EXPORT EntryState : std::uint8_t {
  entryPending = 0,           ///< queued, not committed; who depends on it waits
  entryInLog = 1,             ///< committed; the hardware has not acknowledged it yet
  entryStateReserved = 2,     ///< never set
  entryRejected = 3,          ///< failed for a reason from outside the table logic
  entryDone = 4,              ///< nothing remains to be done
  entryDependencyFailed = 5,  ///< given up because the entry that it depends on failed
  entryResourceFailed = 6,    ///< a resource could not be resolved
};

/// "entryPending" and so on; "entryState(7)" for what is none.
QUARNBASTIL_EXPORT Fenrik::String entryStateName(EntryState state);

/// Whether a state says that the operation failed.
constexpr bool entryFailed(EntryState state) {
  return state == EntryState::entryRejected || state == EntryState::entryDependencyFailed ||
         state == EntryState::entryResourceFailed;
}

/// The part of a handle that a dependent operation sees, whatever table it belongs to.
///
/// Whoever changes the state announces it under `kEntryStateField`, so that the resolver whose head
/// waits for the handle looks again.
class QUARNBASTIL_EXPORT DependencyEntryHandle : public Fenrik::Publishing<Fenrik::Node> {
 public:
  static constexpr Fenrik::FieldId kEntryStateField{2};
  static constexpr Fenrik::FieldId kLogVersionField{4};

  ~DependencyEntryHandle() override;

  EntryState entryState() const noexcept { return entryState_; }

  virtual void handleEntryState();
  /// Hardware index that an entry depending on this one needs; none in the software tables.
  virtual Index hwIndexForDependentField() const;
  virtual void handleIndexSuggestions(const std::set<Index>& indices) const;
  /// The table of the operation and the log version at which it stands there.
  virtual TableVersion entryTableVersion() const = 0;
  virtual Fenrik::String tableName() const = 0;
  virtual SwTableId tableId() const = 0;
  /// Text of the key, for whoever asks what an operation waits for.
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
