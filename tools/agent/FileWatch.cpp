#include "agent/FileWatch.h"

namespace Agent {

FileWatch::FileWatch(std::span<const std::string> paths)
    : paths_(paths.begin(), paths.end()), taken_(stamps()), last_(taken_) {}

std::vector<FileWatch::Stamp> FileWatch::stamps() const {
  std::vector<Stamp> stamps;
  for (const std::string& path : paths_) {
    struct stat status {};
    Stamp stamp;
    if (::stat(path.c_str(), &status) == 0) {
      const std::int64_t seconds = status.st_mtim.tv_sec;
      stamp = {status.st_ino, status.st_size, seconds * 1'000'000'000 + status.st_mtim.tv_nsec};
    }
    stamps.push_back(stamp);
  }
  return stamps;
}

bool FileWatch::changed() {
  const auto time = std::chrono::steady_clock::now();
  if (time < next_) return false;
  next_ = time + kPeriod;
  auto now = stamps();
  const bool settled = now == last_;
  last_ = std::move(now);
  if (!settled || last_ == taken_) return false;
  taken_ = last_;
  return true;
}

}  // namespace Agent
