#pragma once

#include "Fenrik/Attribute.h"
#include "Fenrik/NodeClass.h"
#include "Fenrik/String.h"
#include "OrderedTable/GroupInterface.h"
#include "OrderedTable/LogVersion.h"
#include "OrderedTable/SwTableId.h"
#include "Stavro/EntityManager.h"

namespace Asic {

/// Base class of entry logs: the table's identity and its two versions.
class QUARNBASTIL_EXPORT EntryLogBase : public Fenrik::Publishing<Fenrik::Node> {
 public:
  using KivModule = struct EntryLogBaseModule;
  using KivSelf = EntryLogBase;
  static constexpr std::uint16_t kFieldBase = 128;
  static constexpr Fenrik::FieldId kTableVersionField{kFieldBase + 6};
  static constexpr Fenrik::FieldId kTableStatusVersionField{kFieldBase + 7};

  FENRIK_ATTRIBUTE_FACT(kFieldBase + 2, tableId, value);
  FENRIK_ATTRIBUTE_FACT(kFieldBase + 3, entityManager, pointer);
  FENRIK_ATTRIBUTE_FACT(kFieldBase + 4, groupInterface, pointer);
  FENRIK_ATTRIBUTE_FACT(kFieldBase + 5, agentName, value);
  FENRIK_READ_ONLY(kFieldBase + 6, tableVersion, value);
  FENRIK_READ_ONLY(kFieldBase + 7, tableStatusVersion, value);

  EntryLogBase(SwTableId tableId, const Fenrik::Ptr<Stavro::EntityManager>& entityManager,
               const Fenrik::Ptr<GroupInterface>& groupInterface, const Fenrik::String& agentName);
  ~EntryLogBase() override;

  SwTableId tableId() const noexcept { return tableId_; }
  const Fenrik::Ptr<Stavro::EntityManager>& entityManager() const noexcept {
    return entityManager_;
  }
  const Fenrik::Ptr<GroupInterface>& groupInterface() const noexcept { return groupInterface_; }
  const Fenrik::String& agentName() const noexcept { return agentName_; }

  /// Newest version issued.
  LogVersion tableVersion() const noexcept { return tableVersion_; }
  /// Newest version up to which the log has been cleaned. While it is below `tableVersion`, the
  /// hardware has outstanding work.
  LogVersion tableStatusVersion() const noexcept { return tableStatusVersion_; }

  /// Advances the newest version and returns it.
  LogVersion tableVersionInc(LogVersion delta) {
    tableVersionIs(LogVersion(tableVersion_.value() + delta.value()));
    return tableVersion_;
  }

 protected:
  void tableVersionIs(LogVersion version) {
    Fenrik::Impl::attributeValueIs(publisher_, kTableVersionField, tableVersion_, version);
  }
  void tableStatusVersionIs(LogVersion version) {
    Fenrik::Impl::attributeValueIs(publisher_, kTableStatusVersionField, tableStatusVersion_,
                                   version);
  }

 private:
  SwTableId tableId_;
  Fenrik::Ptr<Stavro::EntityManager> entityManager_;
  Fenrik::Ptr<GroupInterface> groupInterface_;
  Fenrik::String agentName_;
  LogVersion tableVersion_;
  LogVersion tableStatusVersion_;
};

}  // namespace Asic
