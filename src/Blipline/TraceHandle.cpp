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

/// Held over the files of every multi-threaded handle: threads come and go seldom.
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

  /// Null in a child process: the names are the parent's.
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

/// The files of one thread, which go back to their handles at its end.
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

  /// Null is remembered too: a thread whose file could not be made does not try at every site.
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
    // The site has nobody to tell; the files that are there show what is missing.
  }
  Impl::threadSlot = {id_, file};
  return file;
}

}  // namespace Blipline
