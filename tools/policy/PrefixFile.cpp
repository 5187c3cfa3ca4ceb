#include "policy/PrefixFile.h"

namespace Policy {
namespace {

Route routeOf(LineReader& line, unsigned number) {
  Route route;
  route.line = number;
  route.prefix = line.prefix();
  LineReader behind = line;
  if (line.atEnd()) return route;
  if (!behind.accept(' ') && !behind.accept('\t')) behind.fail("a blank behind the prefix");
  if (line.accept('-')) return route;
  route.nextHop = line.address();
  return route;
}

}  // namespace

std::vector<Route> routesOf(const std::string& file, std::string_view text) {
  std::vector<Route> routes;
  readLines(file, text,
            [&](LineReader& line, unsigned number) { routes.push_back(routeOf(line, number)); });
  return routes;
}

}  // namespace Policy
