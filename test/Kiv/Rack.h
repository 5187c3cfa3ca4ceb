#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Counted.h"
#include "Fenrik/NodeClass.h"
#include "Kiv/KeyedAttribute.h"

struct RackModule;

class Card final : public Fenrik::NodeClass<Card> {
 public:
  Card(PairKey slot, std::string* end = nullptr) : slot_(slot), end_(end) {}
  ~Card() override {
    if (end_ != nullptr) *end_ += "ended;";
  }
  const PairKey& slot() const { return slot_; }

 private:
  PairKey slot_;
  std::string* end_;
};

/// A class with a keyed attribute of each kind.
class Rack final : public Fenrik::NodeClass<Rack, Fenrik::Publishing<Fenrik::Node>> {
 public:
  static constexpr std::uint16_t kFieldBase = 256;
  using KivModule = RackModule;

  struct CardKeyFunktor {
    const PairKey& operator()(const Fenrik::Ptr<Card>& card) const { return card->slot(); }
  };
  struct CountedKeyFunktor {
    const PairKey& operator()(const Counted& value) const { return value.key(); }
  };
  using HN_Card = Kiv::Hm2018NI<0x8a1b2c3d, PairKey, Fenrik::Ptr<Card>, CardKeyFunktor>;
  using HN_Label = Kiv::Hm2018NI<0x18a1b2c3, PairKey, Counted, CountedKeyFunktor>;
  using HN_Power = Kiv::Hm2018NE<0x77a1b2c3, PairKey, int>;
  using HN_Spare = Kiv::Hm2018NE<0x67a1b2c3, std::uint16_t, Fenrik::Ptr<Card>>;

  KIV_KEYED(kFieldBase + 2, card, HN_Card);
  KIV_KEYED(kFieldBase + 3, label, HN_Label);
  KIV_KEYED_VALUE(kFieldBase + 4, power, HN_Power);
  KIV_KEYED_VALUE(kFieldBase + 6, spare, HN_Spare);
};

struct RackModule : Kiv::Module<"RackTest", Card, Rack> {};
