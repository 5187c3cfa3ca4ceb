#pragma once

#include <sys/types.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Drift/DriftError.h"
#include "Fenrik/Export.h"

namespace Drift {

/// Owns a file descriptor and closes it.
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

/// The directory of one entity manager's collections, one file each. It is opened once; files are
/// opened relative to its descriptor.
///
/// The directory belongs to the agent's user. If it is group-writable and has the set-group-id bit,
/// it is shared: members of the group may create collections in it, and may write those created for
/// the whole group.
class QUARNBASTIL_EXPORT Directory {
 public:
  enum class Access { read, write };

  /// 0750: the hardware writer has read access through the group.
  static constexpr mode_t kDirectoryMode = 0750;
  static constexpr mode_t kFileMode = 0640;
  /// Mode of a collection that any member of a shared directory's group may write.
  static constexpr mode_t kSharedFileMode = 0660;

  /// Opens the directory. For writing, missing directories are created first. Throws
  /// `MountException` if the path cannot be opened, is not a directory, or (for writing) belongs to
  /// another user and is not shared with this process.
  Directory(std::string path, Access access, mode_t fileMode = kFileMode);

  int fd() const noexcept { return fd_->get(); }
  /// Shared, for objects that outlive this one.
  const std::shared_ptr<const Descriptor>& descriptor() const noexcept { return fd_; }
  const std::string& path() const noexcept { return path_; }
  Access access() const noexcept { return access_; }
  mode_t fileMode() const noexcept { return fileMode_; }
  uid_t owner() const noexcept { return owner_; }
  bool isShared() const noexcept { return shared_; }
  /// Whether a file of this user and group may be used here.
  bool admits(uid_t user, gid_t group) const noexcept {
    return user == owner_ || (shared_ && group == group_);
  }

  /// Name of the entity's file: the path with '/', '%' and a leading '.' replaced by '%' and two
  /// hexadecimal digits. Throws `MountException` (refused) if the path is empty or too long, has a
  /// component "." or "..", or contains a NUL or control character.
  static std::string fileNameOf(std::string_view entityPath);
  /// Path of the entity whose file has this name; empty if the name is not that of an entity.
  static std::string entityPathOf(std::string_view fileName);

  /// Path of an entity's file, for messages.
  std::string pathOf(std::string_view entityPath) const;

  /// The entities whose paths begin with `prefix`, sorted.
  std::vector<std::string> entities(std::string_view prefix) const;

  /// Names of the temporary files under which `fileName` is being created, including those of
  /// processes that died.
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
