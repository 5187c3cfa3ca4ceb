#include "policy/Input.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <iterator>
#include <map>
#include <new>
#include <unordered_map>
#include <unordered_set>

#include "Drift/Directory.h"
#include "policy/RuleFile.h"

namespace Policy {
namespace {

[[noreturn]] void failToRead(const std::string& path, int error) {
  throw InputError(fmt::format("{}: cannot be read: {}", path, std::strerror(error)));
}

/// Opens without blocking, which a FIFO would do until it has a writer.
Drift::Descriptor openToRead(const std::string& path) {
  Drift::Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  if (!file.valid()) failToRead(path, errno);
  return file;
}

bool holdsRules(std::string_view text) {
  while (!text.empty()) {
    const std::size_t begin = text.find_first_not_of(" \t\r\n");
    if (begin == std::string_view::npos) return false;
    if (text[begin] == '@') return true;
    const std::size_t end = text.find('\n', begin);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end);
  }
  return false;
}

/// Remembers which file requested a prefix first, for the message about contradictions.
class RouteBook {
 public:
  void add(const std::string& file, const std::vector<Route>& routes, std::vector<Route>& out) {
    for (const Route& route : routes) {
      const auto [at, isNew] = known_.try_emplace(route.prefix, Known{route, &file});
      if (isNew) {
        out.push_back(route);
      } else if (at->second.route.nextHop != route.nextHop ||
                 at->second.route.redirect.name != route.redirect.name) {
        fail(file, route, at->second);
      }
    }
  }

 private:
  struct Known {
    Route route;
    const std::string* file;
  };
  [[noreturn]] static void fail(const std::string& file, const Route& route, const Known& known) {
    throw InputError(fmt::format(
        "{}:{}:1: expected one next hop for each prefix, found another one for the prefix of "
        "{}:{}",
        file, route.line, *known.file, known.route.line));
  }

  std::map<Prefix, Known> known_;
};

void checkNames(std::span<const Content> contents, const std::vector<NextHop>& nextHops) {
  std::unordered_set<std::uint64_t> known;
  for (const NextHop& nextHop : nextHops) known.insert(nextHop.id);
  const auto check = [&](const std::string& path, unsigned line, const Redirect& redirect) {
    if (redirect.name.empty() || known.contains(requestIdOf(redirect.name))) return;
    throw InputError(fmt::format("{}:{}:{}: expected one of the {} next hops, found \"{}\"", path,
                                 line, redirect.column, nextHops.size(), redirect.name));
  };
  for (const Content& content : contents) {
    for (const auto& named : content.named) check(content.path, named.line, named.redirect);
    for (const Route& route : content.routes) check(content.path, route.line, route.redirect);
  }
}

/// Rules that do what a search for the longest prefix does.
std::vector<Rule> redirectsOf(const std::vector<Route>& routes) {
  std::vector<Rule> rules;
  for (const Route& route : routes) {
    if (route.redirect.name.empty()) continue;
    Rule rule;
    rule.destination = route.prefix;
    rule.redirect = requestIdOf(route.redirect.name);
    rules.push_back(rule);
  }
  std::ranges::stable_sort(rules, std::greater<>(),
                           [](const Rule& rule) { return rule.destination.length; });
  return rules;
}

}  // namespace

std::string textOfFile(const std::string& path) {
  const Drift::Descriptor file = openToRead(path);
  struct stat status {};
  if (::fstat(file.get(), &status) != 0) failToRead(path, errno);
  if (S_ISDIR(status.st_mode)) failToRead(path, EISDIR);
  if (!S_ISREG(status.st_mode)) {
    throw InputError(fmt::format("{}: cannot be read: it is not a regular file", path));
  }
  std::string text(static_cast<std::size_t>(status.st_size), '\0');
  std::size_t size = 0;
  for (;;) {
    if (size == text.size()) text.resize(size + 65536);
    const ssize_t got = ::read(file.get(), text.data() + size, text.size() - size);
    if (got < 0 && errno != EINTR) failToRead(path, errno);
    if (got == 0) break;
    if (got > 0) size += static_cast<std::size_t>(got);
  }
  text.resize(size);
  return text;
}

void addRules(Wanted& wanted, std::span<const Rule> rules) {
  std::unordered_map<Decision, std::size_t> known;
  known.reserve(wanted.rules.size() + rules.size());
  for (std::size_t i = 0; i < wanted.rules.size(); ++i) {
    known.emplace(decisionOf(wanted.rules[i]), i);
  }
  wanted.rules.reserve(wanted.rules.size() + rules.size());
  for (const Rule& rule : rules) {
    const auto [at, isNew] = known.try_emplace(decisionOf(rule), wanted.rules.size());
    if (!isNew && wanted.rules[at->second] == rule) {
      ++wanted.repeated;
    } else {
      wanted.rules.push_back(rule);
    }
  }
}

Content contentOf(const std::string& path, FileKind kind) try {
  const std::string text = textOfFile(path);
  Content content;
  content.path = path;
  const bool redirects = kind != FileKind::policy;
  if (kind == FileKind::nextHops) {
    content.nextHops = nextHopsOf(path, text);
  } else if (kind == FileKind::redirects || holdsRules(text)) {
    content.rules =
        rulesOf(path, text, redirects ? &content.named : nullptr, kind == FileKind::redirects);
  } else {
    content.routes = routesOf(path, text, redirects);
  }
  return content;
} catch (const std::bad_alloc&) {
  throw InputError(fmt::format("{}: cannot be read: there is not enough memory for it", path));
}

Wanted wantedOf(std::span<const Content> contents) {
  Wanted wanted;
  RouteBook book;
  for (const Content& content : contents) {
    addRules(wanted, content.rules);
    book.add(content.path, content.routes, wanted.routes);
    std::ranges::copy(content.nextHops, std::back_inserter(wanted.nextHops));
  }
  checkNames(contents, wanted.nextHops);
  addRules(wanted, redirectsOf(wanted.routes));
  return wanted;
}

}  // namespace Policy
