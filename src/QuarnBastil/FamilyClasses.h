#pragma once

#include "QuarnBastil/EntryLog.h"
#include "QuarnBastil/InfraTypes.h"
#include "QuarnBastil/Interface.h"
#include "QuarnBastil/SwTable.h"
#include "QuarnBastil/SwTableHelperBase.h"

/// Declares the final classes of a family and defines `PrefixFamilyClasses`, from which its traits
/// derive.
#define QUARNBASTIL_DECLARE_FAMILY(Prefix)                                                  \
  class QUARNBASTIL_EXPORT Prefix##SwTable;                                                 \
  class QUARNBASTIL_EXPORT Prefix##EntryHandle;                                             \
  class QUARNBASTIL_EXPORT Prefix##SwTableEntries_py;                                       \
  class QUARNBASTIL_EXPORT Prefix##SwTableIteratorState;                                    \
  class QUARNBASTIL_EXPORT Prefix##EntryWrapper;                                            \
  class QUARNBASTIL_EXPORT Prefix##ResolverEntry;                                           \
  class QUARNBASTIL_EXPORT Prefix##SwTableHelperBase;                                       \
  class QUARNBASTIL_EXPORT Prefix##EntryLog;                                                \
  class QUARNBASTIL_EXPORT Prefix##Interface;                                               \
  using Prefix##FamilyClasses =                                                             \
      ::QuarnBastil::FamilyClasses<#Prefix, Prefix##SwTable, Prefix##EntryHandle,           \
                                   Prefix##SwTableEntries_py, Prefix##SwTableIteratorState, \
                                   Prefix##EntryWrapper, Prefix##ResolverEntry,             \
                                   Prefix##SwTableHelperBase, Prefix##EntryLog, Prefix##Interface>

/// Defines one final class from the role's template, with its factory names.
#define QUARNBASTIL_FAMILY_CLASS(Prefix, lowerPrefix, Role, Template)                            \
  class QUARNBASTIL_EXPORT Prefix##Role final : public ::QuarnBastil::Template<Prefix##Family> { \
   public:                                                                                       \
    using Template::Template;                                                                    \
    ~Prefix##Role() override;                                                                    \
    FENRIK_FACTORY(lowerPrefix##Role, Prefix##Role);                                             \
  }

/// Defines the final classes of a family. REQUIRES: its traits `PrefixFamily` are defined above.
/// The classes add nothing to their bases; they exist for readable names in symbols, backtraces and
/// declarations.
#define QUARNBASTIL_FAMILY(Prefix, lowerPrefix)                                              \
  class QUARNBASTIL_EXPORT Prefix##EntryHandle final                                         \
      : public ::QuarnBastil::SwTableEntryHandle<Prefix##Family> {                           \
   public:                                                                                   \
    static constexpr std::string_view kTypeName = "EntryHandle";                             \
    using SwTableEntryHandle::SwTableEntryHandle;                                            \
    ~Prefix##EntryHandle() override;                                                         \
  };                                                                                         \
  class QUARNBASTIL_EXPORT Prefix##SwTableEntries_py final                                   \
      : public ::QuarnBastil::SwTableEntriesPy<Prefix##Family> {                             \
   public:                                                                                   \
    static constexpr std::string_view kTypeName = "SwTableEntries_py";                       \
    ~Prefix##SwTableEntries_py() override;                                                   \
  };                                                                                         \
  class QUARNBASTIL_EXPORT Prefix##SwTableHelperBase                                         \
      : public ::QuarnBastil::SwTableHelperBase<Prefix##Family> {                            \
   public:                                                                                   \
    ~Prefix##SwTableHelperBase() override;                                                   \
    FENRIK_FACTORY(lowerPrefix##SwTableHelperBase, Prefix##SwTableHelperBase);               \
  };                                                                                         \
  QUARNBASTIL_FAMILY_CLASS(Prefix, lowerPrefix, SwTableIteratorState, SwTableIteratorState); \
  QUARNBASTIL_FAMILY_CLASS(Prefix, lowerPrefix, EntryWrapper, EntryWrapper);                 \
  QUARNBASTIL_FAMILY_CLASS(Prefix, lowerPrefix, ResolverEntry, ResolverEntry);               \
  QUARNBASTIL_FAMILY_CLASS(Prefix, lowerPrefix, EntryLog, EntryLog);                         \
  QUARNBASTIL_FAMILY_CLASS(Prefix, lowerPrefix, SwTable, SwTable);                           \
  QUARNBASTIL_FAMILY_CLASS(Prefix, lowerPrefix, Interface, Interface);                       \
  static_assert(::QuarnBastil::FamilyTraits<Prefix##Family>)

/// The definitions in a family's own source, outside all namespaces: the classes' destructors,
/// which anchor their vtables, the descriptor and the registration.
#define QUARNBASTIL_DEFINE_FAMILY(Space, Prefix)                                                \
  KIV_MODULE(Space::Prefix##Family::InfraTypesModule);                                          \
  KIV_MODULE(Space::Prefix##Family::SwTableModule);                                             \
  KIV_MODULE(Space::Prefix##Family::SwTableHelperBaseModule);                                   \
  KIV_MODULE(Space::Prefix##Family::EntryLogModule);                                            \
  KIV_MODULE(Space::Prefix##Family::InterfaceModule);                                           \
  Space::Prefix##EntryHandle::~Prefix##EntryHandle() = default;                                 \
  Space::Prefix##SwTableEntries_py::~Prefix##SwTableEntries_py() = default;                     \
  Space::Prefix##SwTableIteratorState::~Prefix##SwTableIteratorState() = default;               \
  Space::Prefix##EntryWrapper::~Prefix##EntryWrapper() = default;                               \
  Space::Prefix##ResolverEntry::~Prefix##ResolverEntry() = default;                             \
  Space::Prefix##SwTableHelperBase::~Prefix##SwTableHelperBase() = default;                     \
  Space::Prefix##EntryLog::~Prefix##EntryLog() = default;                                       \
  Space::Prefix##SwTable::~Prefix##SwTable() = default;                                         \
  Space::Prefix##Interface::~Prefix##Interface() = default;                                     \
  template const ::Asic::TableDescriptor& ::QuarnBastil::descriptorOf<Space::Prefix##Family>(); \
  static const ::Asic::TableRegistration k##Prefix##Registration(                               \
      ::QuarnBastil::descriptorOf<Space::Prefix##Family>())
