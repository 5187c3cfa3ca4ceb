#include "agent/FileWatch.h"

#include <fmt/format.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>

namespace Agent {
namespace {

constexpr std::uint32_t kFinished = IN_CLOSE_WRITE | IN_MOVED_TO;

}  // namespace

FileWatch::FileWatch(std::span<const std::string> paths)
    : paths_(paths.begin(), paths.end()), inotify_(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
  if (!inotify_.valid()) {
    throw std::runtime_error(fmt::format("cannot watch files: {}", std::strerror(errno)));
  }
  watch();
}

/// Called again after each event, since a link may have another target or a directory may have been
/// replaced.
void FileWatch::watch() {
  names_.clear();
  for (std::size_t i = 0; i < paths_.size(); ++i) {
    watch(i, paths_[i]);
    const std::unique_ptr<char, decltype(&std::free)> target(::realpath(paths_[i].c_str(), nullptr),
                                                             &std::free);
    if (target != nullptr) watch(i, target.get());
  }
}

void FileWatch::watch(std::size_t file, const std::string& path) {
  const std::size_t slash = path.rfind('/');
  const std::string directory =
      slash == std::string::npos ? "." : path.substr(0, std::max<std::size_t>(slash, 1));
  const int descriptor =
      ::inotify_add_watch(inotify_.get(), directory.c_str(), kFinished | IN_MODIFY | IN_ONLYDIR);
  if (descriptor < 0) return;
  const Name name{descriptor, path.substr(slash == std::string::npos ? 0 : slash + 1)};
  const auto [begin, end] = names_.equal_range(name);
  for (auto it = begin; it != end; ++it) {
    if (it->second == file) return;
  }
  names_.emplace(name, file);
}

void FileWatch::takeEvents() {
  alignas(struct inotify_event) std::array<char, 16 * (sizeof(struct inotify_event) + NAME_MAX)>
      buffer;
  bool any = false;
  for (;;) {
    const ssize_t size = ::read(inotify_.get(), buffer.data(), buffer.size());
    if (size <= 0) break;
    any = true;
    for (const char* at = buffer.data(); at < buffer.data() + size;) {
      const auto* const event = reinterpret_cast<const struct inotify_event*>(at);
      at += sizeof(struct inotify_event) + event->len;
      if ((event->mask & IN_Q_OVERFLOW) != 0) {
        for (std::size_t i = 0; i < paths_.size(); ++i) finished_.insert(i);
      }
      if (event->len == 0) continue;
      const auto [begin, end] = names_.equal_range({event->wd, event->name});
      for (auto it = begin; it != end; ++it) {
        const bool done = (event->mask & kFinished) != 0;
        (done ? finished_ : written_).insert(it->second);
        if (done) written_.erase(it->second);
      }
    }
  }
  if (any) watch();
}

std::set<std::size_t> FileWatch::finished() {
  takeEvents();
  std::set<std::size_t> result = std::exchange(finished_, {});
  std::erase_if(result, [&](std::size_t file) { return written_.contains(file); });
  return result;
}

bool FileWatch::isBeingWritten(std::size_t file) {
  takeEvents();
  return written_.contains(file);
}

}  // namespace Agent
