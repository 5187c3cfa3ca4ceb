#pragma once

#include <hiredis/hiredis.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "Drift/Fixture.h"
#include "OrderedTable/Must.h"

namespace Bench {

/// A private Redis server on a socket, which saves only on request.
class RedisStore {
 public:
  explicit RedisStore(const std::string& path) : path_(path) {}
  ~RedisStore() { stop(); }
  RedisStore(const RedisStore&) = delete;
  RedisStore& operator=(const RedisStore&) = delete;

  /// Starts the server with the data it saved last; returns when it answers.
  void start() {
    const std::string socket = path_ + "/socket";
    ::unlink(socket.c_str());
    const char* const arguments[] = {
        "redis-server", "--port", "0",     "--unixsocket", socket.c_str(), "--save",    "",
        "--appendonly", "no",     "--dir", path_.c_str(),  "--logfile",    "/dev/null", nullptr};
    must(::posix_spawnp(&server_, arguments[0], nullptr, nullptr,
                        const_cast<char* const*>(arguments), environ) == 0,
         "redis-server");
    for (int attempt = 0; attempt < 60'000; ++attempt) {
      if (context_ == nullptr || context_->err != 0) connect(socket);
      if (context_ != nullptr && context_->err == 0 && answers("PING")) return;
      ::usleep(1000);
    }
    must(false, "connecting to redis-server");
  }
  void stop() {
    if (server_ == 0) return;
    redisFree(context_);
    context_ = nullptr;
    ::kill(server_, SIGKILL);
    ::waitpid(server_, nullptr, 0);
    server_ = 0;
  }
  void save() { must(answers("SAVE"), "SAVE"); }

  void operation(Word key, Word version) {
    redisAppendCommand(context_, "HSET config %llu %b", static_cast<unsigned long long>(key),
                       record_.data(), record_.size());
    ++replies_;
    logged(version);
  }
  void logged(Word version) {
    redisAppendCommand(context_, "XADD log 0-%llu e %b", static_cast<unsigned long long>(version),
                       record_.data(), record_.size());
    ++replies_;
    if (++inFlight_ == kInFlight) end();
  }
  void end() {
    for (; replies_ != 0; --replies_) {
      void* reply = nullptr;
      must(redisGetReply(context_, &reply) == REDIS_OK, "redisGetReply");
      freeReplyObject(reply);
    }
    inFlight_ = 0;
  }

 private:
  static constexpr unsigned kInFlight = 100;

  void connect(const std::string& socket) {
    if (context_ != nullptr) redisFree(context_);
    context_ = redisConnectUnix(socket.c_str());
  }
  bool answers(const char* command) {
    auto* const reply = static_cast<redisReply*>(redisCommand(context_, command));
    const bool fine = reply != nullptr && reply->type != REDIS_REPLY_ERROR;
    if (reply != nullptr) freeReplyObject(reply);
    return fine;
  }

  std::string path_;
  pid_t server_ = 0;
  redisContext* context_ = nullptr;
  unsigned inFlight_ = 0;
  unsigned replies_ = 0;
  std::vector<char> record_ = std::vector<char>(kConfigRecord, 3);
};

}  // namespace Bench
