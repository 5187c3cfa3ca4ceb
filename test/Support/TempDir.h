#pragma once

#include <stdlib.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

namespace Support {

/// A directory in shared memory that goes with its object.
class TempDir {
 public:
  TempDir() {
    std::string name = "/dev/shm/qbtest.XXXXXX";
    if (::mkdtemp(name.data()) == nullptr) std::abort();
    path_ = name;
  }
  ~TempDir() { std::filesystem::remove_all(path_); }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

/// Puts other bytes into a file, from a place on.
inline void overwrite(const std::string& path, std::size_t at, std::string_view bytes) {
  std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
  file.seekp(static_cast<std::streamoff>(at)).write(bytes.data(), std::ssize(bytes));
  if (!file.flush()) std::abort();
}

}  // namespace Support
