#include "policy/PrefixFile.h"

namespace Policy {
namespace {

/// The fourth word, behind the interface.
Redirect redirectOf(LineReader& line) {
  if (line.atEnd()) return {};
  line.word();
  line.skipBlanks();
  LineReader none = line;
  if (none.atEnd() || (none.accept('-') && none.atBlankOrEnd())) return {};
  const unsigned column = line.column();
  return {line.name("the name of a next hop, or '-'"), column};
}

Route routeOf(LineReader& line, unsigned number, bool redirects) {
  Route route;
  route.line = number;
  route.prefix = line.prefix();
  LineReader after = line;
  if (line.atEnd()) return route;
  if (!after.accept(' ') && !after.accept('\t')) after.fail("a blank after the prefix");
  if (!line.accept('-')) route.nextHop = line.address();
  LineReader rest = line;
  if (!line.atEnd() && !rest.accept(' ') && !rest.accept('\t')) {
    rest.fail("a blank after the next hop");
  }
  if (redirects) route.redirect = redirectOf(line);
  return route;
}

}  // namespace

std::vector<Route> routesOf(const std::string& file, std::string_view text, bool redirects) {
  std::vector<Route> routes;
  readLines(file, text, [&](LineReader& line, unsigned number) {
    routes.push_back(routeOf(line, number, redirects));
  });
  return routes;
}

}  // namespace Policy
