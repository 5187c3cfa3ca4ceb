#pragma once

#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <functional>
#include <stdexcept>
#include <string>

namespace Support {

/// Runs a function in a child process, one machine instruction at a time between its two calls of
/// `mark`. While the child stands, its memory and its files are what they would be had it been
/// killed there.
class Stepper {
 public:
  using Mark = void (*)();

  /// Starts the child and lets it run up to its first mark.
  explicit Stepper(const std::function<void(Mark)>& body) : child_(::fork()) {
    if (child_ == 0) {
      if (::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) ::_exit(77);
      try {
        body([] { ::raise(SIGSTOP); });
      } catch (const std::exception& wrong) {
        ::dprintf(STDERR_FILENO, "stepped process: %s\n", wrong.what());
      }
      ::_exit(1);
    }
    expectStop(SIGSTOP);
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
    return expectStop(SIGTRAP) != SIGSTOP;
  }

 private:
  /// By that signal, or by that of a mark.
  int expectStop(int signal) {
    int status = 0;
    ::waitpid(child_, &status, 0);
    const int found = WIFSTOPPED(status) ? WSTOPSIG(status) : 0;
    if (found == signal || found == SIGSTOP) return found;
    throw std::runtime_error("the stepped process came to status " + std::to_string(status));
  }

  pid_t child_;
};

}  // namespace Support
