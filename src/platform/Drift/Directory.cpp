#include "Drift/Directory.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <memory>

#include "Fenrik/Format.h"

namespace Drift {

void Descriptor::reset() noexcept {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

namespace {

[[noreturn]] void refuse(std::string_view entityPath, const char* why) {
  throw MountException(
      MountStage::refused,
      Fenrik::formatString("the entity path \"{}\" {}: give it another name", entityPath, why));
}

/// Creates the directory and its missing parents.
void makeDirectories(const std::string& path, mode_t mode) {
  for (std::size_t end = path.find('/', 1);; end = path.find('/', end + 1)) {
    const std::string part = path.substr(0, end);
    if (::mkdir(part.c_str(), mode) != 0 && errno != EEXIST && errno != EISDIR) {
      throw MountException(
          errno == ENOSPC ? MountStage::noSpace : MountStage::systemError,
          Fenrik::formatString("cannot make the directory {}: {}", part, std::strerror(errno)));
    }
    if (end == std::string::npos) return;
  }
}

bool isPlain(char c) {
  const auto byte = static_cast<unsigned char>(c);
  return byte > 0x20 && byte < 0x7f && c != '/' && c != '%';
}

/// Mode bits that determine whether a directory is shared.
constexpr mode_t kSharedBits = S_ISGID | S_IWGRP | S_IWOTH;

/// First character of temporary files' names; no entity's file name begins with it.
constexpr char kTemporaryPrefix = '.';

}  // namespace

Directory::Directory(std::string path, Access access, mode_t fileMode)
    : path_(std::move(path)), access_(access), fileMode_(fileMode) {
  while (path_.size() > 1 && path_.back() == '/') path_.pop_back();
  if (path_.empty() || path_.find('\0') != std::string::npos) {
    throw MountException(MountStage::refused, "the directory of the collections has no name");
  }
  if (access == Access::write) makeDirectories(path_, kDirectoryMode);
  fd_ =
      std::make_shared<const Descriptor>(::open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  struct stat found {};
  if (!fd_->valid() || ::fstat(fd(), &found) != 0) {
    throw MountException(
        errno == ENOENT ? MountStage::absent : MountStage::systemError,
        Fenrik::formatString("cannot open the directory {}: {}", path_, std::strerror(errno)));
  }
  owner_ = found.st_uid;
  group_ = found.st_gid;
  shared_ = (found.st_mode & kSharedBits) == (S_ISGID | S_IWGRP);
  const bool mayMake = shared_ && ::faccessat(fd(), ".", W_OK | X_OK, AT_EACCESS) == 0;
  if (access == Access::write && owner_ != ::geteuid() && !mayMake) {
    throw MountException(
        MountStage::refused,
        Fenrik::formatString("the directory {} belongs to user {}, this process is user {}: run "
                             "it as that user, use another directory, or let a group that both "
                             "are in write there (chmod 2770)",
                             path_, owner_, ::geteuid()));
  }
}

std::string Directory::fileNameOf(std::string_view entityPath) {
  if (entityPath.empty()) refuse(entityPath, "is empty");
  std::string name;
  std::size_t component = 0;
  for (std::size_t i = 0; i < entityPath.size(); ++i) {
    const char c = entityPath[i];
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7f) {
      throw MountException(
          MountStage::refused,
          Fenrik::formatString("an entity path of {} bytes has the control character {:#04x} at "
                               "position {}: give it another name",
                               entityPath.size(), byte, i));
    }
    if (c == '/') component = i + 1;
    const bool last = i + 1 == entityPath.size() || entityPath[i + 1] == '/';
    const std::string_view part = entityPath.substr(component, i + 1 - component);
    if (last && (part == "." || part == "..")) refuse(entityPath, "leads through \".\" or \"..\"");
    if (isPlain(c) && !(i == 0 && c == '.')) {
      name += c;
    } else {
      name += fmt::format("%{:02X}", byte);
    }
  }
  // Leaves room for the temporary name, which adds a dot, a process id and a number.
  if (name.size() > NAME_MAX - 24) refuse(entityPath, "is too long for a file's name");
  return name;
}

namespace {

/// Takes the next character of an entity's path from the front of a file name. False if the name is
/// none of an entity.
bool takeCharacter(std::string_view& fileName, char& character) {
  const auto digit = [&](std::size_t at) {
    const char* digits = "0123456789ABCDEF";
    const char* found = at < fileName.size() ? std::strchr(digits, fileName[at]) : nullptr;
    return found == nullptr || *found == '\0' ? -1 : static_cast<int>(found - digits);
  };
  if (fileName.empty()) return false;
  character = fileName.front();
  if (character == '%') {
    const int high = digit(1);
    const int low = digit(2);
    if (high < 0 || low < 0) return false;
    character = static_cast<char>(high * 16 + low);
    fileName.remove_prefix(2);
  }
  fileName.remove_prefix(1);
  return true;
}

/// Much cheaper than the whole path, of which most lists want few.
bool beginsWith(std::string_view fileName, std::string_view prefix) {
  char character = 0;
  return std::ranges::all_of(prefix, [&](char wanted) {
    return takeCharacter(fileName, character) && character == wanted;
  });
}

}  // namespace

std::string Directory::entityPathOf(std::string_view fileName) {
  std::string path;
  for (std::string_view rest = fileName; !rest.empty();) {
    char character = 0;
    if (!takeCharacter(rest, character)) return "";
    path += character;
  }
  try {
    return fileNameOf(path) == fileName ? path : "";
  } catch (const MountException&) {
    return "";
  }
}

std::string Directory::pathOf(std::string_view entityPath) const {
  return path_ + "/" + fileNameOf(entityPath);
}

std::vector<std::string> Directory::fileNames() const {
  // Opens a separate stream, since duplicated descriptors share their position.
  const int copy = ::openat(fd(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  DIR* const opened = copy >= 0 ? ::fdopendir(copy) : nullptr;
  if (opened == nullptr) {
    const int error = errno;
    if (copy >= 0) ::close(copy);
    throw MountException(
        MountStage::systemError,
        Fenrik::formatString("cannot list the directory {}: {}", path_, std::strerror(error)));
  }
  const std::unique_ptr<DIR, int (*)(DIR*)> dir(opened, &::closedir);
  std::vector<std::string> names;
  while (const dirent* entry = ::readdir(dir.get())) names.emplace_back(entry->d_name);
  return names;
}

std::vector<std::string> Directory::entities(std::string_view prefix) const {
  std::vector<std::string> found;
  for (const std::string& name : fileNames()) {
    if (name.front() == kTemporaryPrefix || !beginsWith(name, prefix)) continue;
    std::string path = entityPathOf(name);
    if (!path.empty()) found.push_back(std::move(path));
  }
  std::ranges::sort(found);
  return found;
}

std::vector<std::string> Directory::temporaries(std::string_view fileName) const {
  std::vector<std::string> found = fileNames();
  const std::string prefix = fmt::format("{}{}.", kTemporaryPrefix, fileName);
  std::erase_if(found, [&](const std::string& name) { return !name.starts_with(prefix); });
  return found;
}

}  // namespace Drift
