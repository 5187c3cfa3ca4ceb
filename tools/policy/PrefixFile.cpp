#include "policy/PrefixFile.h"

namespace Policy {
namespace {

Route routeOf(LineReader& line, unsigned number) {
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
