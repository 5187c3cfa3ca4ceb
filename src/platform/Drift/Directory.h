#pragma once

#include <sys/types.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Drift/DriftError.h"
#include "Fenrik/Export.h"

namespace Drift {

/// A file descriptor that is closed with its object.
class QUARNBASTIL_EXPORT Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int fd) : fd_(fd) {}
  Descriptor(Descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~Descriptor() { reset(); }

  int get() const noexcept { return fd_; }
  bool valid() const noexcept { return fd_ >= 0; }
  void reset() noexcept;

 private:
  int fd_ = -1;
};

/// The directory that holds one entity manager's collections, a file each. It is opened once; every
/// file is reached from its descriptor.
///
/// It belongs to the agent's user. One whose group may write there, with the set-group-id bit, is
/// shared: members of the group make collections of their own in it, and write those that are made
/// for all of them.
class QUARNBASTIL_EXPORT Directory {
 public:
  enum class Access { read, write };

  /// 0750: the hardware writer reads through the group.
  static constexpr mode_t kDirectoryMode = 0750;
  static constexpr mode_t kFileMode = 0640;
  /// Of a collection in a shared directory that any member may write.
  static constexpr mode_t kSharedFileMode = 0660;

  /// Opens the directory; for writing it is made first, with those above it, if it is absent.
  /// Throws `MountException` if it is not to be had, is none, or (for writing) is another user's
  /// and not shared with this process.
  Directory(std::string path, Access access, mode_t fileMode = kFileMode);

  int fd() const noexcept { return fd_->get(); }
  /// The same, for objects that outlive this one.
  const std::shared_ptr<const Descriptor>& descriptor() const noexcept { return fd_; }
  const std::string& path() const noexcept { return path_; }
  Access access() const noexcept { return access_; }
  mode_t fileMode() const noexcept { return fileMode_; }
  uid_t owner() const noexcept { return owner_; }
  bool isShared() const noexcept { return shared_; }
  /// Whether a file of that user and group is one that belongs here.
  bool admits(uid_t user, gid_t group) const noexcept {
    return user == owner_ || (shared_ && group == group_);
  }

  /// The name of the file that holds the entity: its path with '/', '%' and a leading '.' written
  /// as '%' and two hexadecimal digits. Throws `MountException` (refused) for a path that is empty,
  /// too long, has a component "." or "..", a NUL or a control character.
  static std::string fileNameOf(std::string_view entityPath);
  /// The entity whose file bears this name; empty if it is no entity's.
  static std::string entityPathOf(std::string_view fileName);

  /// Path of an entity's file, for messages.
  std::string pathOf(std::string_view entityPath) const;

  /// The entities whose path begins with `prefix`, sorted.
  std::vector<std::string> entities(std::string_view prefix) const;

  /// Names of the files under which the file of that name is being made, or was when its maker
  /// died.
  std::vector<std::string> temporaries(std::string_view fileName) const;

 private:
  std::vector<std::string> fileNames() const;

  std::string path_;
  Access access_;
  mode_t fileMode_;
  uid_t owner_ = 0;
  gid_t group_ = 0;
  bool shared_ = false;
  std::shared_ptr<const Descriptor> fd_;
};

}  // namespace Drift
