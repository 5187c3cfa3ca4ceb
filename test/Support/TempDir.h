#pragma once

#include <stdlib.h>

#include <cstdlib>
#include <filesystem>
#include <string>

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

}  // namespace Support
