#pragma once

#include "Fenrik/Attribute.h"
#include "Fenrik/NodeClass.h"
#include "Kiv/HashMap2018.h"
#include "Kiv/StrepFormatter.h"
#include "OrderedTable/TableVersion.h"

namespace Asic {

/// The versions of other tables that must be in hardware before a log record may be applied.
class QUARNBASTIL_EXPORT NeededEntry final
    : public Fenrik::NodeClass<NeededEntry, Fenrik::Node, Fenrik::Storage::slabPerWrite> {
 public:
  using KivModule = Kiv::Module<"NeededEntry", NeededEntry>;
  static constexpr std::uint16_t kFieldBase = 128;

  FENRIK_ATTRIBUTE_FACT(kFieldBase + 2, neededEntry, keyed);
  FENRIK_FUNCTION(kFieldBase + 3, add);
  FENRIK_FUNCTION(kFieldBase + 4, merge);

  struct QUARNBASTIL_EXPORT TableIdOfVersion {
    SwTableId operator()(const TableVersion& version) const { return version.tableId(); }
  };
  /// Hash salt of the collection; each keyed collection has its own.
  using HN_NeededEntry = Kiv::Hm2018NI<0x5b1f7d23, SwTableId, TableVersion, TableIdOfVersion,
                                       Kiv::HashMap2018Alloc::slab>;
  using Map = Kiv::HashMap2018<HN_NeededEntry, SwTableId, TableVersion>;

  NeededEntry();
  ~NeededEntry() override;

  /// Adds a version. Of two versions of the same table the higher one is kept, since it implies the
  /// lower.
  void add(const TableVersion& version);
  /// Adds all versions of another set. Null adds nothing.
  void merge(const Fenrik::Ptr<const NeededEntry>& other);

  bool empty() const noexcept { return map_.memberCount() == 0; }
  /// Number of tables.
  std::uint32_t count() const noexcept { return map_.memberCount(); }
  const Map& versions() const noexcept { return map_; }
  Map::Iterator neededEntryIterator() const { return map_.begin(); }
  Map::Iterator neededEntryIteratorFromKey(SwTableId tableId) const {
    return map_.iteratorFromKey(tableId);
  }

 private:
  Map map_;
};

}  // namespace Asic
