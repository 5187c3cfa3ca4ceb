#pragma once

#include <map>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "Drift/Directory.h"

namespace Agent {

/// Notices files that were finished: closed by a writer, or renamed into place. A file that is
/// being written is none.
///
/// It watches the directories, so that a file may be absent for a while, and follows symbolic links
/// one level down: the link and the file that it leads to.
class FileWatch {
 public:
  /// Throws `std::runtime_error` if the system gives no watch.
  explicit FileWatch(std::span<const std::string> paths);

  /// The files, by their places among the paths, that were finished since the last call and are not
  /// being written again.
  std::set<std::size_t> finished();
  /// Whether somebody has begun to write the file since the last `finished`: what was read of it
  /// may be half of it.
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
