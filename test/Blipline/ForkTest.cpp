#include <fcntl.h>
#include <gmock/gmock.h>

#include <atomic>
#include <thread>

#include "Fenrik/NodeClass.h"
#include "Kiv/Log.h"
#include "Kiv/Trace.h"
#include "Kiv/TraceControl.h"
#include "RingFixture.h"

namespace {

template <int size>
class Object final : public Fenrik::NodeClass<Object<size>> {
  char bytes_[size];
};

KIV_LOG_DESCRIPTOR(kTold, "FORK_TEST", "%s", "Test", Kiv::kLogNoAction, 6);

/// Everything that has a lock of the system in it.
void useAll(std::uint64_t round) {
  const Kiv::TraceHandle handle(Fenrik::String(fmt::format("Fork{}", round % 50)), true);
  KIV_TRACE(handle, 1, "", "round {}", round);
  Kiv::TraceControl::settingIs(fmt::format("Nobody/{}", round % 16));
  static Kiv::LogHandle log(&kTold, std::chrono::nanoseconds(1), 1.0, 1, 0);
  Kiv::log(log, "round");
  std::vector<Fenrik::Ptr<Fenrik::Node>> objects;
  for (int i = 0; i != 20; ++i) {
    objects.emplace_back(Fenrik::ptrIsImpl<Object<100>>());
    objects.emplace_back(Fenrik::ptrIsImpl<Object<4000>>());
  }
  provedRecord(round);
}

TEST_F(RingFixture, AChildForkedWhileOtherThreadsAreAtWorkGoesOnAndHarmsNobody) {
  const int nowhere = ::open("/dev/null", O_WRONLY);
  Kiv::TraceControl::sinkIs(nowhere);
  Kiv::LogControl::sinkIs(nowhere);
  Fenrik::ThreadControl::tsp_ = true;
  Blipline::TraceHandle ring(options(true));
  Blipline::defaultBliplineHandle = &ring;
  useAll(0);  // A static that another thread is making would hold up the child.
  std::atomic<bool> stop{false};
  std::vector<std::thread> threads;
  for (int thread = 0; thread != 3; ++thread)
    threads.emplace_back([&] {
      for (std::uint64_t round = 0; !stop; ++round) {
        useAll(round);
        // One that ends gives its ring file back.
        if (round % 16 == 0) std::thread([] { provedRecord(0); }).join();
      }
    });
  for (int children = 0; children != 60 && !HasFailure(); ++children) {
    Support::Process child([&] {
      ::alarm(20);
      for (std::uint64_t round = 0; round != 20; ++round) useAll(round);
      BLIPLINE_TRACE("Child", "described in the child alone");
      ::_exit(0);
    });
    EXPECT_EQ(child.wait(), 0) << "the child waits for a thread that it does not have";
  }
  stop = true;
  for (std::thread& thread : threads) thread.join();
  Fenrik::ThreadControl::tsp_ = false;
  Kiv::TraceControl::sinkDel();
  Kiv::LogControl::sinkIsStderr();
  for (unsigned index = 0; index != 4; ++index) {
    const Blipline::RingFile file(path(index));
    EXPECT_THAT(file.problems(), testing::IsEmpty());
    for (const auto& [id, site] : file.descriptions()) EXPECT_NE(site.className, "Child");
    for (const auto& record : file.records())
      EXPECT_TRUE(file.descriptions().contains(record.msgId));
  }
}

}  // namespace
