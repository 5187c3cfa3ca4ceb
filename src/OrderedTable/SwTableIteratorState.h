#pragma once

#include <cstdint>

#include <vector>

#include "Fenrik/Attribute.h"
#include "Fenrik/NodeClass.h"
#include "OrderedTable/KeyImage.h"

namespace Asic {

/// The flags of an iteration.
class IterFlags {
 public:
  constexpr bool hasCurrent() const noexcept { return has(0); }
  constexpr bool inAddColl() const noexcept { return has(1); }
  constexpr bool inTblCfg() const noexcept { return has(2); }
  constexpr bool removeAllPending() const noexcept { return has(3); }
  constexpr bool hasBookmark() const noexcept { return has(4); }

  constexpr IterFlags withHasCurrent(bool on) const noexcept { return with(0, on); }
  constexpr IterFlags withInAddColl(bool on) const noexcept { return with(1, on); }
  constexpr IterFlags withInTblCfg(bool on) const noexcept { return with(2, on); }
  constexpr IterFlags withRemoveAllPending(bool on) const noexcept { return with(3, on); }
  constexpr IterFlags withHasBookmark(bool on) const noexcept { return with(4, on); }

  constexpr std::uint8_t value() const noexcept { return bits_; }
  /// The names of the flags that are set.
  void textAppend(std::string& text) const;

 private:
  constexpr bool has(unsigned bit) const noexcept { return ((bits_ >> bit) & 1) != 0; }
  constexpr IterFlags with(unsigned bit, bool on) const noexcept {
    IterFlags changed = *this;
    const auto mask = static_cast<std::uint8_t>(1U << bit);
    changed.bits_ = static_cast<std::uint8_t>(on ? bits_ | mask : bits_ & ~mask);
    return changed;
  }

  std::uint8_t bits_ = 0;
};

class OrderedSwTable;

/// The position of an iteration: flags and the key of the next entry. It refers to nothing inside
/// the table, so the table may change in any way between two steps. It does not keep the table
/// alive.
class QUARNBASTIL_EXPORT SwTableIteratorStateBase : public Fenrik::Publishing<Fenrik::Node> {
 public:
  using KivModule = struct SwTableIteratorStateModule;
  using KivSelf = SwTableIteratorStateBase;
  static constexpr std::uint16_t kFieldBase = 128;

  FENRIK_READ_ONLY(kFieldBase + 2, state, value);

  /// `bookmarkField` is the attribute number under which changes of the bookmark are announced.
  explicit SwTableIteratorStateBase(Fenrik::FieldId bookmarkField) noexcept
      : bookmarkField_(bookmarkField) {}
  ~SwTableIteratorStateBase() override;

  IterFlags state() const noexcept { return state_; }
  void stateIs(IterFlags state) noexcept { state_ = state; }

  /// The table being iterated; null before the iteration begins.
  const OrderedSwTable* table() const noexcept { return table_; }
  void tableIs(const OrderedSwTable* table) noexcept { table_ = table; }

  /// Key of the entry to visit next.
  const KeyImage& bookmark() const noexcept { return bookmark_; }
  void bookmarkIs(const KeyImage& key);

  /// Buffer for a configuration record, reused by each step.
  std::vector<FlatShape::Word>& recordRoom() noexcept { return recordRoom_; }

 private:
  Fenrik::FieldId bookmarkField_;
  IterFlags state_;
  const OrderedSwTable* table_ = nullptr;
  KeyImage bookmark_;
  std::vector<FlatShape::Word> recordRoom_;
};

/// Iterator over a table's entries. Must not outlive the table. Converts to false at the end.
///
///     for (auto it = table->entryIteratorConst(); it; ++it) use(*it);
template <class Table, class Entry, class Key, class State>
class OrderedSwTableEntryIterator {
 public:
  OrderedSwTableEntryIterator(Table* table, Fenrik::Ptr<State> state)
      : table_(table), state_(std::move(state)) {
    ++*this;
  }

  explicit operator bool() const noexcept {
    return state_ != nullptr && state_->state().hasCurrent();
  }
  const Entry& operator*() const noexcept { return current_; }
  const Entry* operator->() const noexcept { return &current_; }
  OrderedSwTableEntryIterator& operator++() {
    if (state_ != nullptr) current_ = state_->maybeUpdateCurrentEntry();
    return *this;
  }

  Table* table() const noexcept { return table_; }
  const Fenrik::Ptr<State>& state() const noexcept { return state_; }

 private:
  Table* table_;
  Fenrik::Ptr<State> state_;
  Entry current_{Key()};
};

}  // namespace Asic
