#pragma once

#include <string>
#include <vector>

#include "Fenrik/Attribute.h"
#include "Fenrik/NodeClass.h"
#include "Fenrik/Reactor.h"

/// A small class of the system with one attribute of each simple kind.
struct LampModule;

class Lamp final : public Fenrik::NodeClass<Lamp, Fenrik::Publishing<Fenrik::Node>> {
 public:
  static constexpr std::uint16_t kFieldBase = 128;
  using KivModule = LampModule;

  explicit Lamp(int brightness) : brightness_(brightness) {}
  ~Lamp() override {
    if (ended != nullptr) *ended = hasNotificationFlag() ? "flag still set" : "ended";
  }

  FENRIK_VALUE(kFieldBase + 2, brightness, int);
  FENRIK_POINTER(kFieldBase + 3, next, Lamp);
  FENRIK_COUNTER(kFieldBase + 6, switchCnt);
  FENRIK_FUNCTION(kFieldBase + 9, blink);

 public:
  bool hasNotificationFlag() const { return nodeFlag(Fenrik::NodeFlag::hasNotificationActive); }
  std::string* ended = nullptr;
};

/// Notes what a lamp announces.
class Watcher final
    : public Fenrik::NodeClass<Watcher,
                               Fenrik::Reacting<Watcher, Fenrik::Publishing<Fenrik::Node>>> {
 public:
  static constexpr std::uint16_t kFieldBase = 256;
  using KivModule = LampModule;

  explicit Watcher(Fenrik::Ptr<Lamp> lamp) : lamp_(std::move(lamp)) {}
  ~Watcher() override { reactorStop(); }

  const Fenrik::Publisher* watchedPublisher() const {
    return lamp_ != nullptr ? lamp_->publisher() : nullptr;
  }
  void handleChange(const Fenrik::Change& change) { seen.push_back(change.fieldId.number()); }
  bool subscribed() const { return reactorSubscribed(); }

  std::vector<int> seen;

  FENRIK_POINTER(kFieldBase + 2, lamp, Lamp);
};

struct LampModule : Kiv::Module<"LampTest", Lamp, Watcher> {};
