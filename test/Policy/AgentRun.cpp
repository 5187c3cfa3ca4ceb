#include "Policy/AgentRun.h"

#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>

#include "QuarnBastil/BigBb.h"
#include "QuarnBastil/TcamEntry.h"
#include "Support/TableRig.h"
#include "policy/Rows.h"

namespace PolicyTest {
namespace {

using QuarnBastil::BigBbFamily;
using QuarnBastil::TcamEntryFamily;
using Manager = Fenrik::Ptr<KivSharedMem::EntityManager>;

Manager managerOf(const std::string& directory) {
  return Fenrik::ptrIsImpl<KivSharedMem::EntityManager>("reader", Fenrik::String(directory),
                                                        Drift::Directory::Access::read);
}

/// A collection, mounted for reading; null if there is none, or none yet.
template <class Collection>
Fenrik::Ptr<Collection> mounted(const Manager& manager, const Fenrik::String& path,
                                Drift::Word capacity) {
  KivDrift::MountInfo info(0);
  info.collectionInfoIs({Fenrik::String(Collection::kAttributeName), capacity, 0});
  const auto group = manager->getMountGroup();
  group->mount(path, Fenrik::String(Collection::kEntityName), info);
  try {
    group->doClose();
  } catch (const Drift::MountException&) {
    return nullptr;
  }
  return Fenrik::dynamicPtrCast<Collection>(manager->getEntity(path));
}

template <class Family>
std::uint64_t versionOf(const Manager& manager) {
  const auto log = mounted<typename Family::EntryLogDrift>(
      manager, Family::Constants::tableEntryLogDriftPath(), Family::kLogCapacity);
  return log == nullptr ? 0 : log->collectionControl()->announced();
}

template <class Family>
void eachEntry(const Manager& manager, unsigned unit, auto take) {
  const auto path =
      Family::Constants::configDriftPath(Asic::UnitId(static_cast<std::uint16_t>(unit)));
  const auto config = mounted<typename Family::ConfigDrift>(manager, path, Family::kConfigCapacity);
  if (config == nullptr) return;
  typename Family::ConfigDrift::Map::Cursor cursor;
  const auto& map = *config->map();
  for (bool more = map.driftMapIterBegin(cursor); more;) {
    if (!cursor.record.isDeleted) take(cursor.record.logEntry);
    const auto key = cursor.record.logEntry.key;
    more = map.driftMapIterNext(key, cursor);
  }
}

template <class Family>
void reportAll(const std::string& directory) {
  const std::uint64_t version = versionOf<Family>(managerOf(directory));
  if (version == 0) return;
  Support::ReporterRig(directory, Family::Constants::canonicalGroupName())
      .report(Family::kTableId, version);
}

}  // namespace

Running::Running(std::vector<std::string> words) {
  int ends[2];
  if (::pipe(ends) != 0) std::abort();
  pid_ = ::fork();
  if (pid_ == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    ::dup2(ends[1], STDOUT_FILENO);
    ::dup2(ends[1], STDERR_FILENO);
    ::close(ends[0]);
    ::close(ends[1]);
    std::vector<char*> argv;
    for (auto& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    ::execv(argv[0], argv.data());
    ::_exit(127);
  }
  ::close(ends[1]);
  out_ = ends[0];
}

Running::~Running() {
  ::close(out_);
  if (pid_ <= 0) return;
  signal(SIGKILL);
  status();
}

std::optional<std::string> Running::line() {
  for (;;) {
    if (const auto end = read_.find('\n'); end != std::string::npos) {
      const std::string line = read_.substr(0, end);
      read_.erase(0, end + 1);
      return line;
    }
    pollfd readable{out_, POLLIN, 0};
    char bytes[4096];
    const ssize_t got = ::poll(&readable, 1, 30'000) == 1 ? ::read(out_, bytes, sizeof bytes) : 0;
    if (got <= 0) return {};
    read_.append(bytes, static_cast<std::size_t>(got));
  }
}

std::string Running::await(const std::string& text) {
  while (const auto next = line()) {
    if (next->find(text) != std::string::npos) return *next;
  }
  return {};
}

std::string Running::rest() {
  std::string all;
  while (const auto next = line()) all += *next + '\n';
  return all;
}

void Running::signal(int number) const { ::kill(pid_, number); }

int Running::status() {
  int status = 0;
  if (::waitpid(pid_, &status, 0) != pid_) return -1000;
  pid_ = -1;
  return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
}

AgentRun::AgentRun(const std::string& directory, const std::vector<std::string>& arguments)
    : Running([&] {
        std::vector<std::string> words{BASTIL_AGENT, "--dir", directory};
        words.insert(words.end(), arguments.begin(), arguments.end());
        return words;
      }()) {}

ReportingHardware::ReportingHardware(const std::string& directory) : pid_(::fork()) {
  if (pid_ != 0) return;
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  for (;; ::usleep(500)) {
    try {
      reportAll<BigBbFamily>(directory);
      reportAll<TcamEntryFamily>(directory);
    } catch (const Fenrik::Exception&) {
      // The agent has not made its files yet.
    }
  }
}

ReportingHardware::~ReportingHardware() {
  ::kill(pid_, SIGKILL);
  ::waitpid(pid_, nullptr, 0);
}

Policy::Picture pictureIn(const std::string& directory, unsigned unit) {
  Policy::Picture picture;
  const auto manager = managerOf(directory);
  eachEntry<BigBbFamily>(manager, unit, [&](const auto& entry) {
    picture.prefixes.push_back(Policy::prefixRowOf(entry));
  });
  eachEntry<TcamEntryFamily>(manager, unit, [&](const auto& entry) {
    picture.rules.push_back(
        {entry.key.bank, entry.key.index, Policy::ruleOf(entry), Policy::ruleRowOf(entry)});
  });
  return picture;
}

std::array<std::uint64_t, 2> versionsIn(const std::string& directory) {
  if (!std::filesystem::exists(directory)) return {};
  const auto manager = managerOf(directory);
  return {versionOf<BigBbFamily>(manager), versionOf<TcamEntryFamily>(manager)};
}

}  // namespace PolicyTest
