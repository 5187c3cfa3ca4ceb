#include <fmt/core.h>

#include "Fenrik/Attribute.h"
#include "Fenrik/NodeClass.h"
#include "Fenrik/Reactor.h"

struct LampModule;

// A class of the system: counted, from the slab, tracked. A line declares an attribute.
class Lamp final : public Fenrik::NodeClass<Lamp, Fenrik::Publishing<Fenrik::Node>> {
 public:
  static constexpr std::uint16_t kFieldBase = 128;
  using KivModule = LampModule;
  FENRIK_VALUE(kFieldBase + 2, brightness, int);
};

// Watches a lamp and says what changed on it.
class Watcher final : public Fenrik::NodeClass<Watcher, Fenrik::Reacting<Watcher>> {
 public:
  using KivModule = LampModule;
  explicit Watcher(Lamp::Ptr lamp) : lamp_(std::move(lamp)) {}
  ~Watcher() override { reactorStop(); }

  const Fenrik::Publisher* watchedPublisher() const { return lamp_->publisher(); }
  void handleChange(const Fenrik::Change& change) {
    fmt::print("{} is now {}\n", lamp_->typeData().attribute(change.fieldId)->name,
               lamp_->brightness());
  }

 private:
  Lamp::Ptr lamp_;
};

struct LampModule : Kiv::Module<"Lamps", Lamp, Watcher> {};

int main() {
  Lamp::Ptr lamp = Fenrik::ptrIsImpl<Lamp>();
  Watcher::Ptr watcher = Fenrik::ptrIsImpl<Watcher>(lamp);
  watcher->hasNotificationActiveIs(true);
  lamp->brightnessIs(7);  // prints "brightness is now 7"
  lamp->brightnessIs(7);  // no change, nothing said
}
