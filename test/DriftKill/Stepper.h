#pragma once

#include <sys/ptrace.h>
#include <sys/wait.h>

#include <csignal>
#include <cstddef>
#include <cstring>
#include <functional>

#include "DriftKill/Collections.h"

namespace DriftTest {

/// Runs a function in a child process, one machine instruction at a time between its two calls of
/// `mark`. While the child stands, its memory and its files are what they would be had it been
/// killed there.
class Stepper {
 public:
  using Mark = void (*)();

  /// Starts the child and lets it run up to its first mark.
  explicit Stepper(const std::function<void(Mark)>& body) : child_(::fork()) {
    if (child_ == 0) {
      ::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
      try {
        body([] { ::raise(SIGSTOP); });
      } catch (const std::exception& wrong) {
        ::dprintf(STDERR_FILENO, "stepped process: %s\n", wrong.what());
      }
      ::_exit(1);
    }
    if (stop() != SIGSTOP) fault("the stepped process did not reach its first mark");
  }
  ~Stepper() {
    ::kill(child_, SIGKILL);
    ::waitpid(child_, nullptr, 0);
  }
  Stepper(const Stepper&) = delete;
  Stepper& operator=(const Stepper&) = delete;

  /// Lets the child do one instruction; false when it has come to its second mark.
  bool step() {
    ::ptrace(PTRACE_SINGLESTEP, child_, nullptr, nullptr);
    const int signal = stop();
    if (signal == SIGSTOP) return false;
    if (signal != SIGTRAP) fault("signal {} met the stepped process", signal);
    return true;
  }

 private:
  int stop() {
    int status = 0;
    if (::waitpid(child_, &status, 0) != child_ || !WIFSTOPPED(status)) {
      fault("the stepped process ended with status {:#x}", status);
    }
    return WSTOPSIG(status);
  }

  pid_t child_;
};

}  // namespace DriftTest
