#include "Blipline/TraceHandle.h"

#include <fmt/format.h>
#include <unistd.h>

#include <mutex>
#include <utility>
#include <vector>

#include "Fenrik/ForkGuard.h"

namespace Blipline {

std::atomic<TraceHandle*> defaultBliplineHandle{nullptr};

namespace Impl {

thread_local constinit ThreadSlot threadSlot{0, nullptr};

namespace {

/// Protects the files of all multi-threaded handles; threads start and end rarely.
constinit std::mutex poolMutex;

const Fenrik::ForkGuard forkGuard(
    Fenrik::ForkOrder::ringFiles, [] { poolMutex.lock(); }, [] { poolMutex.unlock(); },
    [] { poolMutex.unlock(); });

}  // namespace

/// The files of a multi-threaded handle.
class FilePool {
 public:
  explicit FilePool(TraceHandle::Options options) : options_(std::move(options)) {}

  std::unique_ptr<TraceFile> fileMake(unsigned index) const {
    return std::make_unique<TraceFile>(
        fmt::format("{}/{}-{}.blip", options_.directory, options_.name, index), options_.ringBytes,
        index);
  }

  /// Null in a forked child, since the file names are the parent's.
  TraceFile* fileTake() {
    if (::getpid() != owner_) return nullptr;
    const std::lock_guard lock(poolMutex);
    if (idle_.empty()) {
      files_.push_back(fileMake(static_cast<unsigned>(files_.size())));
      return files_.back().get();
    }
    TraceFile* const file = idle_.back();
    idle_.pop_back();
    return file;
  }

  void fileReturn(TraceFile* file) {
    const std::lock_guard lock(poolMutex);
    idle_.push_back(file);
  }

 private:
  const TraceHandle::Options options_;
  const pid_t owner_ = ::getpid();
  std::vector<std::unique_ptr<TraceFile>> files_;
  std::vector<TraceFile*> idle_;
};

namespace {

thread_local constinit bool threadEnded = false;

/// The files of one thread, returned to their handles when it ends.
class ThreadFiles {
 public:
  ThreadFiles() = default;
  ThreadFiles(const ThreadFiles&) = delete;
  ThreadFiles& operator=(const ThreadFiles&) = delete;
  ~ThreadFiles() {
    threadEnded = true;
    threadSlot = {0, nullptr};
    for (const Holding& holding : holdings_)
      if (const auto pool = holding.pool.lock(); pool != nullptr && holding.file != nullptr)
        pool->fileReturn(holding.file);
  }

  /// Null is cached too, so that a thread whose file could not be created does not retry at every
  /// site.
  TraceFile* file(std::uint64_t handleId, const std::shared_ptr<FilePool>& pool) {
    for (const Holding& holding : holdings_)
      if (holding.handleId == handleId) return holding.file;
    std::erase_if(holdings_, [](const Holding& holding) { return holding.pool.expired(); });
    holdings_.push_back({handleId, pool, nullptr});
    return holdings_.back().file = pool->fileTake();
  }

 private:
  struct Holding {
    std::uint64_t handleId;
    std::weak_ptr<FilePool> pool;
    TraceFile* file;
  };
  std::vector<Holding> holdings_;
};

TraceFile* fileOfThread(std::uint64_t handleId, const std::shared_ptr<FilePool>& pool) {
  static thread_local ThreadFiles files;
  return files.file(handleId, pool);
}

std::uint64_t nextHandleId() {
  static std::atomic<std::uint64_t> last{0};
  return ++last;
}

}  // namespace
}  // namespace Impl

TraceHandle::TraceHandle(const Options& options)
    : multiThreaded_(options.multiThreaded ? 1 : 0), id_(Impl::nextHandleId()) {
  if (multiThreaded_ == 0) {
    file_.emplace(fmt::format("{}/{}-0.blip", options.directory, options.name), options.ringBytes,
                  0u);
  } else {
    pool_ = std::make_shared<Impl::FilePool>(options);
    Impl::threadSlot = {id_, Impl::fileOfThread(id_, pool_)};
  }
}

TraceHandle::~TraceHandle() {
  TraceHandle* self = this;
  defaultBliplineHandle.compare_exchange_strong(self, nullptr);
}

TraceFile* TraceHandle::threadFile() noexcept {
  if (Impl::threadEnded) return nullptr;
  TraceFile* file = nullptr;
  try {
    file = Impl::fileOfThread(id_, pool_);
  } catch (const std::exception&) {
    // A trace site cannot report this; the missing file shows it.
  }
  Impl::threadSlot = {id_, file};
  return file;
}

}  // namespace Blipline
