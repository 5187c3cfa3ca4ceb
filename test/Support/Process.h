#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "Support/TempDir.h"

namespace Support {

inline std::string textOf(const std::string& file) {
  std::ifstream in(file);
  return (std::stringstream() << in.rdbuf()).str();
}

/// A child process: a program with its output in files, or a function.
class Process {
 public:
  Process() = default;
  Process(std::vector<std::string> arguments, const std::string& out, const std::string& err) {
    start([&] {
      redirect(out, STDOUT_FILENO);
      redirect(err, STDERR_FILENO);
      std::vector<char*> argv;
      for (std::string& argument : arguments) argv.push_back(argument.data());
      argv.push_back(nullptr);
      ::execv(argv[0], argv.data());
    });
  }
  template <class Body>
  explicit Process(Body body) {
    start(body);
  }
  ~Process() { kill(); }
  Process(Process&& other) noexcept : pid_(std::exchange(other.pid_, -1)) {}
  Process& operator=(Process&& other) noexcept {
    std::swap(pid_, other.pid_);
    return *this;
  }

  /// Its end stays to be waited for.
  bool running() const {
    siginfo_t info{};
    if (pid_ <= 0) return false;
    return ::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           info.si_pid == 0;
  }
  void signal(int number) const { ::kill(pid_, number); }
  /// Wherever it is, until SIGCONT; returns once it does not run any more.
  void stop() const {
    siginfo_t info{};
    signal(SIGSTOP);
    ::waitid(P_PID, static_cast<id_t>(pid_), &info, WSTOPPED | WEXITED | WNOWAIT);
  }
  void kill() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    wait();
  }
  /// Asks it to end; its exit status, or minus the signal that ended it.
  int end() {
    signal(SIGTERM);
    return wait();
  }
  int wait() {
    int status = 0;
    if (pid_ <= 0 || ::waitpid(std::exchange(pid_, -1), &status, 0) < 0) return -1000;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }

 private:
  template <class Body>
  void start(Body body) {
    pid_ = ::fork();
    if (pid_ != 0) return;
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    body();
    ::_exit(127);
  }
  static void redirect(const std::string& file, int to) {
    ::dup2(::open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600), to);
  }

  pid_t pid_ = -1;
};

/// A program, with what it prints, to be read on from where it was read last.
class Program : public Process {
 public:
  explicit Program(std::vector<std::string> arguments) {
    static_cast<Process&>(*this) = Process(std::move(arguments), out_, out_);
  }

  /// The next line with the text in it, once there is one; empty if the program ends before, or
  /// half a minute is over.
  std::string await(const std::string& text) {
    for (int look = 0; look < 30'000; ++look) {
      const bool ended = !running();
      const std::string all = textOf(out_);
      for (std::size_t end; (end = all.find('\n', read_)) != std::string::npos;) {
        const std::string line = all.substr(read_, end - read_);
        read_ = end + 1;
        if (line.find(text) != std::string::npos) return line;
      }
      if (ended) return {};
      ::usleep(1000);
    }
    return {};
  }
  /// Everything from there to its end.
  std::string rest() {
    while (running()) ::usleep(1000);
    return textOf(out_).substr(read_);
  }

 private:
  TempDir dir_;
  std::string out_ = dir_.path() + "/out";
  std::size_t read_ = 0;
};

/// How a program that ran to its end did.
struct Outcome {
  int status;
  std::string out, err;
};
inline Outcome run(const std::vector<std::string>& arguments, const std::string& folder) {
  const std::string out = folder + "/out";
  const std::string err = folder + "/err";
  ::unlink(out.c_str());
  ::unlink(err.c_str());
  const int status = Process(arguments, out, err).wait();
  return {status, textOf(out), textOf(err)};
}

}  // namespace Support
