#pragma once

#include "Fenrik/NodeClass.h"
#include "Kiv/HashMap2018.h"
#include "Kiv/StrepFormatter.h"
#include "OrderedTable/TableVersion.h"

namespace Asic {

/// The versions of other tables that must be in hardware before a log record may be applied.
class QUARNBASTIL_EXPORT NeededEntry final
    : public Fenrik::NodeClass<NeededEntry, Fenrik::Node, Fenrik::Storage::slabPerWrite> {
 public:
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

 private:
  Map map_;
};

}  // namespace Asic
