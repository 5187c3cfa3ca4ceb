#pragma once

#include <map>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "Drift/Directory.h"

namespace Agent {

/// Notices completed files: closed by a writer, or renamed to their path. Files still being written
/// are not reported.
///
/// Watches directories, so that a file may be absent for some time. Follows a symbolic link for one
/// level: watches both the link and its target.
class FileWatch {
 public:
  /// Throws `std::runtime_error` if the system provides no watch.
  explicit FileWatch(std::span<const std::string> paths);

  /// The files, as indices into `paths`, that were completed since the last call and are not being
  /// written again.
  std::set<std::size_t> finished();
  /// Whether writing has begun since the last `finished`, so that a read may have seen a partial
  /// file.
  bool isBeingWritten(std::size_t file);

 private:
  struct Name {
    int directory;
    std::string name;
    friend auto operator<=>(const Name&, const Name&) = default;
  };

  void watch();
  void watch(std::size_t file, const std::string& path);
  void takeEvents();

  std::vector<std::string> paths_;
  Drift::Descriptor inotify_;
  std::multimap<Name, std::size_t> names_;
  std::set<std::size_t> finished_;
  std::set<std::size_t> written_;
};

}  // namespace Agent
