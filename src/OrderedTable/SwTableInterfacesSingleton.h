#pragma once

#include "Fenrik/String.h"
#include "Kiv/Entity.h"
#include "Kiv/KeyedAttribute.h"
#include "OrderedTable/TableInterfaceBase.h"

namespace Asic {

/// The table interfaces of the process, by full class name. Owns them.
class QUARNBASTIL_EXPORT SwTableInterfacesSingleton final
    : public Fenrik::NodeClass<SwTableInterfacesSingleton, Fenrik::Publishing<Kiv::Entity>> {
 public:
  static constexpr const char* kFullName = "Asic::SwTableInterfacesSingleton";
  static constexpr std::uint16_t kFieldBase = 256;
  using KivModule = Kiv::Module<"SwTableInterfacesSingleton", SwTableInterfacesSingleton>;

  using HN_SwTableIntf = Kiv::Hm2018NE<0x510e527f, Fenrik::String, Fenrik::Ptr<TableInterfaceBase>,
                                       Kiv::HashMap2018Alloc::slab>;

  SwTableInterfacesSingleton();
  ~SwTableInterfacesSingleton() override;

  /// The only instance, created at the first call.
  static Fenrik::Ptr<SwTableInterfacesSingleton> instance();

  KIV_KEYED_VALUE(kFieldBase + 2, swTableIntf, HN_SwTableIntf);
};

}  // namespace Asic
