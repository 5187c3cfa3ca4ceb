#include "Fenrik/TypeData.h"

#include <algorithm>
#include <array>
#include <map>
#include <set>

#include "Kiv/StrepFormatter.h"
#include "OrderedTable/TableAttributes.h"
#include "OrderedTable/TableFixture.h"
#include "OrderedTable/TableModules.h"
#include "Support/Ear.h"

namespace {

using Kiv::AnyValue;
using Kiv::AttributeKind;
using Kiv::KivAttr;
using Kiv::KivType;

std::vector<KivType> allTypes() {
  std::vector<KivType> types;
  for (const Kiv::ModuleFacts* module : Fenrik::ModuleInspectData::all()) {
    for (std::uint8_t i = 0; i < module->types.size(); ++i) types.emplace_back(module, i);
  }
  return types;
}

/// What holds for every class that the process knows, those of other libraries among them.
TEST(TypeData, OfEveryClassIsWholeAndUnambiguous) {
  std::map<std::string_view, unsigned> modules;
  for (const auto* module : Fenrik::ModuleInspectData::all()) ++modules[module->name];
  for (const auto& [name, times] : modules) EXPECT_EQ(times, 1U) << name;
  EXPECT_THAT(modules, testing::SizeIs(testing::Ge(9U * 5 + 1 + 16)));
  std::size_t rows = 0;
  for (const KivType type : allTypes()) {
    SCOPED_TRACE(type.facts()->name);
    std::set<std::string_view> names;
    for (KivType level = type; level.valid(); level = level.base()) {
      const auto attributes = level.facts()->attributes;
      EXPECT_TRUE(std::ranges::is_sorted(attributes, std::ranges::less_equal(),
                                         [](const auto& row) { return row.fieldId; }) ||
                  attributes.size() < 2);
      for (const Kiv::AttributeFact& row : attributes) {
        SCOPED_TRACE(row.name);
        EXPECT_TRUE(names.insert(row.name).second);
        EXPECT_EQ(row.fieldId.number() / Kiv::kFieldBlock,
                  attributes.front().fieldId.number() / Kiv::kFieldBlock);
        EXPECT_EQ(type.attribute(row.fieldId), &row);
        ASSERT_NE(row.access, nullptr);
        ++rows;
        const bool isCollection =
            row.kind == AttributeKind::keyed || row.kind == AttributeKind::queue;
        EXPECT_EQ(row.access->iterator != nullptr, isCollection);
        EXPECT_EQ(row.access->call != nullptr, row.kind == AttributeKind::function);
        EXPECT_EQ(row.access->read != nullptr,
                  row.kind == AttributeKind::value || row.kind == AttributeKind::pointer);
        if (level.base().valid() && !level.base().facts()->attributes.empty()) {
          EXPECT_GT(row.fieldId, level.base().facts()->attributes.back().fieldId);
        }
      }
    }
  }
  EXPECT_GT(rows, 400U);
}

template <class Family>
struct Inspection : TableFixture<Family> {
  using SwTable = typename Family::SwTable;
  using Hide = Fenrik::HideMe<SwTable>;
  using HandlePtr = Fenrik::Ptr<typename Family::EntryHandle>;

  static Fenrik::FieldId field(std::string_view name) {
    return KivAttr(Kiv::typeOf<SwTable>(), name).fieldId();
  }
  unsigned char inspect(std::string_view name, unsigned char op, void* out = nullptr,
                        void* arg = nullptr, void* arg2 = nullptr) {
    return Hide::inspectOperation(out, &*this->table, field(name), op, arg, arg2);
  }

  /// An iterator and what it stands on.
  struct Walk {
    Walk(SwTable& table, std::string_view name, const void* key = nullptr)
        : attribute(Kiv::typeOf<SwTable>(), name) {
      void* from = const_cast<void*>(key);
      const void* table_ops = nullptr;
      iterator = Hide::genericIfIterator(&table, key != nullptr ? &from : nullptr,
                                         attribute.fieldId(), &table_ops);
      ops = static_cast<const Kiv::IteratorOperations*>(table_ops);
    }
    ~Walk() { ops->iterDel(attribute, iterator); }
    bool nonnull() const { return ops->iterNonnull(attribute, iterator); }
    void next() { ops->iterInc(attribute, iterator); }
    std::string key() const { return text(attribute.keyType(), ops->iterKey); }
    std::string value() const { return text(attribute.valueType(), ops->iterObj); }

    KivAttr attribute;
    void* iterator;
    const Kiv::IteratorOperations* ops;

   private:
    template <class Read>
    std::string text(const Kiv::ValueType& type, const Read& read) const {
      AnyValue value(type);
      read(attribute, iterator, value.storage());
      value.filled();
      return value.text();
    }
  };
};
TYPED_TEST_SUITE(Inspection, AllFamilies);

TYPED_TEST(Inspection, ReadsAndWritesWhatATableStores) {
  using Family = TypeParam;
  using Version = Asic::MajorVersion;
  Fenrik::Ptr<Asic::GroupResolver> resolver;
  const auto users = this->table->groupResolver()->useCount();
  EXPECT_EQ(this->inspect("groupResolver", 0, &resolver), 0);
  EXPECT_EQ(resolver, this->table->groupResolver());
  EXPECT_EQ(resolver->useCount(), users + 1);

  std::vector<unsigned> told;
  const Support::Ear ear(*this->table->publisher(), [&](const Fenrik::Change& change) {
    told.push_back(change.fieldId.number());
  });
  Version version(7), read;
  EXPECT_EQ(this->inspect("transientRemoveAllVersion", 1, nullptr, &version), 0);
  EXPECT_EQ(this->inspect("transientRemoveAllVersion", 1, nullptr, &version), 0);
  EXPECT_EQ(this->inspect("transientRemoveAllVersion", 0, &read), 0);
  EXPECT_EQ(read, version);
  Version none;
  this->inspect("transientRemoveAllVersion", 1, nullptr, &none);
  const unsigned number = Family::kSwTableFieldBase + 6;
  EXPECT_EQ(told, (std::vector<unsigned>{number, number})) << "only a new value is told, once";

  // Refusals, which change and tell nothing.
  told.clear();
  for (const char* name : {"transientAddEntry", "entryHandleInLog", "entryRead"}) {
    EXPECT_EQ(this->inspect(name, 0, &read), 1) << name;
    EXPECT_EQ(this->inspect(name, 1, nullptr, &version), 1) << name;
  }
  EXPECT_EQ(this->inspect("groupResolver", 10), 1);
  EXPECT_EQ(this->inspect("groupResolver", 2), 1);
  for (const std::uint8_t op : std::array<std::uint8_t, 4>{0, 1, 2, 10}) {
    EXPECT_EQ(Fenrik::HideMe<typename Family::SwTable>::inspectOperation(
                  nullptr, &*this->table, Fenrik::FieldId(9999), op, nullptr, nullptr),
              2);
  }
  EXPECT_TRUE(told.empty());

  // A base's attribute through the derived object, and a handle's key, which nobody writes.
  Asic::UnitId unit;
  EXPECT_EQ(this->inspect("unitId", 0, &unit), 0);
  EXPECT_EQ(unit, this->kUnit);
  const auto handle = this->write(1, 1);
  using OfHandle = Fenrik::HideMe<typename Family::EntryHandle>;
  void* const object = const_cast<typename Family::EntryHandle*>(&*handle);
  typename Family::Key key;
  EXPECT_EQ(OfHandle::inspectOperation(&key, object, Fenrik::FieldId(514), 0, nullptr, nullptr), 0);
  EXPECT_EQ(key, this->key(1));
  EXPECT_EQ(OfHandle::inspectOperation(nullptr, object, Fenrik::FieldId(514), 1, &key, nullptr), 1);
  Fenrik::Ptr<Fenrik::Node> nobody;
  EXPECT_EQ(OfHandle::inspectOperation(nullptr, object, Fenrik::FieldId(515), 1, &nobody, nullptr),
            0);
  EXPECT_EQ(handle->swTable(), nullptr);

  const std::string text(
      KivFenrik::Impl::valueToStrep(this->table->typeData(), &*this->table).view());
  for (const char* part : {"SwTable{", "unitId: 3", "transientAddEntry: [1]",
                           "groupResolver: "
                           "GroupResolver",
                           "HelperBase"}) {
    EXPECT_THAT(text, testing::HasSubstr(part));
  }
}

TYPED_TEST(Inspection, CallsWhatATableOffers) {
  using Family = TypeParam;
  using HandlePtr = Fenrik::Ptr<typename Family::EntryHandle>;
  auto key = this->key(5);
  auto entry = this->entry(5, 55);
  typename TestFixture::DependencyPtr dependency;
  HandlePtr handle;
  void* three[] = {&key, &entry, &dependency};
  ASSERT_EQ(this->inspect("entryWrite", 10, &handle, three), 0);
  EXPECT_EQ(handle->key(), key);
  typename Family::Entry read, configured;
  ASSERT_EQ(this->inspect("entryRead", 10, &read, &key), 0);
  ASSERT_EQ(this->inspect("entryFromConfig", 10, &configured, &key), 0);
  EXPECT_EQ(read, entry);
  EXPECT_FALSE(static_cast<bool>(configured));
  this->agent.pumpAll();
  std::uint32_t count = 0;
  ASSERT_EQ(this->inspect("entrys", 10, &count), 0);
  EXPECT_EQ(count, 1U);
  Fenrik::Ptr<typename Family::SwTableEntries_py> all;
  ASSERT_EQ(this->inspect("getTableEntries_py", 10, &all), 0);
  EXPECT_EQ(all->tableEntries(key), entry);
  Fenrik::Ptr<typename Family::IteratorState> state;
  ASSERT_EQ(this->inspect("initIterStateFromKey", 10, &state, &key), 0);
  EXPECT_EQ(state->maybeUpdateCurrentEntry(), entry);
  const KivType ofState = state->typeData();
  EXPECT_EQ(ofState.index(), 3);
  EXPECT_EQ(
      Kiv::inspectOperation(ofState, &read, &*state,
                            Fenrik::FieldId(Family::kIteratorFieldBase + 2), 0, nullptr, nullptr),
      1);
  HandlePtr removal;
  ASSERT_EQ(this->inspect("entryRemove", 10, &removal, &key, &dependency), 0);
  EXPECT_FALSE(this->table->entryHas(key));

  // Each function that is marked as reading leaves everything as it was.
  const auto before = this->stats().entryWriteCnt() + this->stats().entryRemoveCnt();
  for (const char* name : {"entryRead", "entryHas", "entrys", "entryFromConfig"}) {
    EXPECT_TRUE(KivAttr(Kiv::typeOf<typename Family::SwTable>(), name).access()->reading) << name;
  }
  for (const char* name : {"entryWrite", "entryRemoveAll", "clearTable", "commitEntry"}) {
    EXPECT_FALSE(KivAttr(Kiv::typeOf<typename Family::SwTable>(), name).access()->reading) << name;
  }
  EXPECT_EQ(this->stats().entryWriteCnt() + this->stats().entryRemoveCnt(), before);

  Asic::EntryVersion version(Asic::MajorVersion(3), 1);
  void* args[] = {&version, &key, &this->table};
  HandlePtr made;
  ASSERT_TRUE(
      Fenrik::HideMe<typename Family::EntryHandle>::genericIfConstructFromCtorArgs(&made, args));
  EXPECT_EQ(made->version(), version);
  EXPECT_EQ(made->key(), key);
  EXPECT_EQ(made->swTable(), &*this->table);
}

TYPED_TEST(Inspection, WalksCollectionsThatChange) {
  using Walk = typename TestFixture::Walk;
  const auto textOf = [&](unsigned n) { return fmt::format("{}", this->key(n)); };
  for (unsigned n = 1; n <= 3; ++n) this->write(n, n);
  auto second = this->key(2), absent = this->key(9);
  for (const char* name : {"transientAddEntry", "transientVersionForKey"}) {
    Walk walk(*this->table, name);
    std::set<std::string> keys;
    for (; walk.nonnull(); walk.next()) keys.insert(walk.key());
    EXPECT_EQ(keys, (std::set{textOf(1), textOf(2), textOf(3)}));
    EXPECT_FALSE(Walk(*this->table, name, &absent).nonnull());
  }
  Walk adds(*this->table, "transientAddEntry", &second);
  Walk versions(*this->table, "transientVersionForKey", &second);
  EXPECT_NE(adds.value(), "null");
  this->agent.pumpAll();
  EXPECT_EQ(adds.key() + adds.value(), textOf(2) + "null") << "gone, with its key";
  EXPECT_EQ(versions.value(), fmt::format("{}", Asic::EntryVersion()));
  adds.next();
  EXPECT_FALSE(adds.nonnull());

  Walk handles(*this->table, "entryHandleInLog");
  const std::uint32_t last = 3;
  Walk atLast(*this->table, "entryHandleInLog", &last);
  EXPECT_EQ(handles.key() + atLast.key(), "13");
  this->report(2);
  EXPECT_EQ(handles.value(), "null");
  handles.next();
  EXPECT_EQ(handles.key(), "3");

  const void* ops = nullptr;
  using Hide = typename TestFixture::Hide;
  EXPECT_EQ(Hide::genericIfIterator(&*this->table, nullptr, this->field("entryLog"), &ops),
            nullptr);
  EXPECT_EQ(Hide::genericIfIterator(&*this->table, nullptr, Fenrik::FieldId(1), &ops), nullptr);
}

/// A helper of a client that has type data of its own, and throws.
class Refuser final : public Fenrik::NodeClass<Refuser, QuarnBastil::TcamEntrySwTableHelperBase> {
 public:
  using KivModule = Kiv::Module<"TypeDataTest", Refuser>;
  static constexpr std::uint16_t kFieldBase = 256;

  FENRIK_FUNCTION(kFieldBase + 2, refuse);

 public:
  void refuse() { throw std::runtime_error("refused"); }
};

using OfClient = Inspection<QuarnBastil::TcamEntryFamily>;
TEST_F(OfClient, ClassIsSeenLikeAnyOther) {
  const auto refuser = Fenrik::ptrIsImpl<Refuser>();
  this->table->swTableHelperIs(refuser);
  Fenrik::Ptr<Fenrik::Node> helper;
  ASSERT_EQ(this->inspect("swTableHelper", 0, &helper), 0);
  const KivType type = helper->typeData();
  EXPECT_EQ(type.facts()->name, "Refuser");
  EXPECT_NE(type.attribute("finalizeOnSuccess"), nullptr) << "of the base";
  EXPECT_THROW(
      Kiv::inspectOperation(type, nullptr, &*refuser, Fenrik::FieldId(258), 10, nullptr, nullptr),
      std::runtime_error);
}

}  // namespace

KIV_LOCAL_MODULE(Refuser::KivModule);
