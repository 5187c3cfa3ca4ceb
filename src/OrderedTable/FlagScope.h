#pragma once

namespace Asic {

/// Sets a flag for the duration of a scope.
class FlagScope {
 public:
  // NOLINTNEXTLINE(cppcoreguidelines-prefer-member-initializer): what is set is the flag itself
  explicit FlagScope(bool& flag) noexcept : flag_(flag) { flag_ = true; }
  ~FlagScope() { flag_ = false; }
  FlagScope(const FlagScope&) = delete;
  FlagScope& operator=(const FlagScope&) = delete;

 private:
  bool& flag_;
};

}  // namespace Asic
