#include <gtest/gtest.h>

#include "Fenrik/Attribute.h"
#include "Fenrik/NodeClass.h"

namespace {

struct LampModule;
class Lamp final : public Fenrik::NodeClass<Lamp, Fenrik::Publishing<Fenrik::Node>> {
 public:
  static constexpr std::uint16_t kFieldBase = 128;
  using KivModule = LampModule;
  explicit Lamp(int b) : brightness_(b) {}
  FENRIK_VALUE(kFieldBase + 2, brightness, int);
  FENRIK_POINTER(kFieldBase + 3, next, Lamp);
  FENRIK_COUNTER(kFieldBase + 4, switchCnt);
};
struct LampModule : Kiv::Module<"LampTest", Lamp> {};

TEST(Node, Lives) {
  auto lamp = Fenrik::ptrIsImpl<Lamp>(3);
  EXPECT_EQ(lamp->useCount(), 1u);
  EXPECT_EQ(lamp->typeData().facts()->name, "Lamp");
  EXPECT_EQ(lamp->typeData().facts()->attributes.size(), 3u);
  EXPECT_EQ(Lamp::memAllocationTracker_->liveCount(), 1u);
  Fenrik::Ptr<Fenrik::Node> base = lamp;
  lamp = nullptr;
  base = nullptr;
  EXPECT_EQ(Lamp::memAllocationTracker_->liveCount(), 0u);
}

}  // namespace
