#include <gmock/gmock.h>

#include <ctime>
#include <fstream>

#include "Support/TempDir.h"
#include "policy/Generate.h"
#include "policy/Input.h"
#include "policy/Plan.h"
#include "policy/RuleFile.h"

namespace PolicyTest {
namespace {

using Policy::Rule;
using testing::HasSubstr;
using testing::StartsWith;

struct Files : Support::TempDir {
  std::string file(const std::string& name, const std::string& text) const {
    std::ofstream(path() + "/" + name) << text;
    return path() + "/" + name;
  }
};

Policy::Wanted read(const std::vector<std::string>& paths) {
  std::vector<Policy::Content> contents;
  for (const auto& path : paths) contents.push_back(Policy::contentOf(path));
  return Policy::wantedOf(contents);
}

/// What reading them ends with; empty if it goes well.
std::string failureOf(const std::vector<std::string>& paths) {
  try {
    read(paths);
    return "";
  } catch (const Policy::InputError& error) {
    return error.what();
  }
}

TEST(Input, EveryWayToWriteARuleMeansTheSame) {
  const Rule web{{0x0a010200, 24}, {}, {}, {443, 443}, {6, 0xff}, {0x1000, 0x1000}};
  Rule ping{{0xc0000201, 32}, {0xcb007100, 24}, {}, {}, {1, 0xff}, {}};
  const std::string texts[] = {
      "@10.1.2.0/24\t0.0.0.0/0\t0 : 65535\t443 : 443\t0x06/0xFF\t0x1000/0x1000\t\n"
      "@192.0.2.1/32\t203.0.113.0/24\t0 : 65535\t0 : 65535\t0x01/0xFF\t0x0000/0x0000\t\n",
      "# rules\r\n\r\n  @10.1.2.0/24 0.0.0.0/0 0:65535 443:443 6/255 0x1000/0x1000\r\n"
      "@192.0.2.1/32 203.0.113.0/24 0 : 65535 0 : 65535 0x01/0xff\r\n",
      "@10.1.2.77/24  1.2.3.4/0 \t 0 :65535 443 : 443 0x06/0xFF 0xffff/0x1000 # the web\n\t\n"
      "@192.0.2.1/32 203.0.113.255/24 0 : 65535 0 : 65535 0x01/0xff 0x1/0x0#",
  };
  for (const auto& text : texts) {
    EXPECT_THAT(Policy::rulesOf("rules", text), testing::ElementsAre(web, ping)) << text;
  }
}

TEST(Input, GeneratedRulesComeBackFromTheirLinesFast) {
  // At most a second is promised for this many; what a loaded machine adds is no fault of reading.
  const auto rules = Policy::generate({.rules = 100'000, .seed = 7, .networks = 1000});
  std::string text;
  for (const Rule& rule : rules) text += Policy::lineOf(rule);
  const auto begin = std::clock();
  EXPECT_EQ(Policy::rulesOf("rules", text), rules);
  EXPECT_LT(std::clock() - begin, CLOCKS_PER_SEC);
}

TEST(Input, ABadRuleIsToldWithItsPlace) {
  const std::string to = "@10.0.0.0/8 10.0.0.0/8 ";
  const std::string good = to + "0 : 65535 80 : 80 0x06/0xFF 0x0000/0x0000";
  const struct {
    std::string line;
    std::string message;
  } cases[] = {
      {"10.0.0.0/8", "1: expected '@' and a source prefix, found \"10.0.0.0/8\""},
      {"@10.0.0/8", "2: expected an IPv4 address"},
      {"@10.0.0.256/8", "2: expected an IPv4 address"},
      {"@10.0.0.0 10.0.0.0/8", "10: expected '/' and a prefix length"},
      {"@10.0.0.0/33", "11: expected a prefix length from 0 to 32, found \"33\""},
      {"@10.0.0.0/8",
       "12: expected an IPv4 address, four numbers up to 255 with points between them, found the "
       "end of the line"},
      {"@2001:db8::/32",
       "2: expected an IPv4 address (IPv6 is not supported yet), found \"2001:db8::/32\""},
      {to + "0 : 65536", "28: expected a port from 0 to 65535, found \"65536\""},
      {to + "80 : 79",
       "29: expected a last port that is not below the first one, 80, found \"79\""},
      {to + "80 - 90", "27: expected ':'"},
      {to + "-1 : 90", "24: expected a port"},
      {to + "0 : 1 0 : 1 tcp", "36: expected a protocol from 0 to 0xff, found \"tcp\""},
      {to + "0 : 1 0 : 1 0x100/0xff", "36: expected a protocol"},
      {to + "0 : 1 0 : 1 6", "37: expected '/' and a mask, found the end of the line"},
      {to + "0 : 1 0 : 1 6/0x1ff", "38: expected a mask"},
      {to + "0 : 1 0 : 1 6/255 0x10000/1", "42: expected flags from 0 to 0xffff"},
      {good + " deny",
       std::to_string(good.size() + 2) + ": expected the end of the rule, found \"deny\""},
      {good + std::string(1, '\0'),
       std::to_string(good.size() + 1) + ": expected the end of the rule, found \"\\x00\""},
      {"@10.0.0.0/99999999999999999999 10.0.0.0/8", "11: expected a prefix length"},
      {"@" + std::string(100'000, '7'), "2: expected an IPv4 address"},
  };
  Files files;
  for (const auto& bad : cases) {
    const auto path = files.file("bad.rules", good + "\n# a comment\r\n" + bad.line + "\n" + good);
    EXPECT_THAT(failureOf({path}), StartsWith(path + ":3:" + bad.message)) << bad.line;
    EXPECT_LT(failureOf({path}).size(), 300U);
  }
}

TEST(Input, ABadNextHopOrRedirectIsToldWithItsPlace) {
  using enum Policy::FileKind;
  const Files files;
  const std::string rule = "@10.0.0.0/8 10.0.0.0/8 0 : 1 0 : 1 6/255 ";
  const auto failure = [&](Policy::FileKind kind, const std::string& line) -> std::string {
    const auto hops = files.file("hops", "core 1:192.0.2.1\n");
    const auto path = files.file("bad", "# a comment\n" + line + "\n");
    try {
      const Policy::Content contents[] = {Policy::contentOf(hops, nextHops),
                                          Policy::contentOf(path, kind)};
      Policy::wantedOf(contents);
      return "";
    } catch (const Policy::InputError& error) {
      return std::string(error.what()).substr(path.size());
    }
  };
  const struct {
    Policy::FileKind kind;
    std::string line;
    std::string message;
  } cases[] = {
      {nextHops, "-", ":2:1: expected the name of a next hop, found \"-\""},
      {nextHops, "a/b 1:1.1.1.1", ":2:1: expected the name of a next hop, found \"a/b\""},
      {nextHops, std::string(48, 'n') + " down", ":2:1: expected a name of at most 47 bytes"},
      {nextHops, "core", ":2:5: expected an adjacency, PORT:ADDRESS, or \"down\""},
      {nextHops, "core 1", ":2:7: expected ':' between port and address, found the end"},
      {nextHops, "core up", ":2:6: expected a port from 0 to 65535 and an address"},
      {nextHops, "core 65536:1.1.1.1", ":2:6: expected a port from 0 to 65535"},
      {nextHops, "core 1:1.1.1.1/8", ":2:15: expected a blank after the address"},
      {nextHops, "core 1:1.1.1.1 down", ":2:16: expected a port"},
      {nextHops, "core down 1:1.1.1.1", ":2:11: expected nothing after \"down\""},
      {nextHops, "core 1:1.1.1.1  1:1.1.1.1", ":2:17: expected each adjacency once"},
      {nextHops, "a down\nb down # \n a 1:1.1.1.1",
       ":4:2: expected each next hop once; it is in line 2 already, found \"a\""},
      {redirects, rule, ":2:42: expected the name of a next hop, found the end of the line"},
      {redirects, rule + "0x0/0x0 # none", ":2:50: expected the name of a next hop, found"},
      {redirects, rule + "core core", ":2:47: expected the end of the rule, found \"core\""},
      {redirects, rule + "edge", ":2:42: expected one of the 1 next hops, found \"edge\""},
      {redirectingPolicy, rule + "0x0/0x0 edge", ":2:50: expected one of the 1 next hops"},
      {redirectingPolicy, "1.0.0.0/8 - eth0 edge", ":2:18: expected one of the 1 next hops"},
      {redirectingPolicy, "1.0.0.0/8 - eth0 *", ":2:18: expected the name of a next hop, or '-'"},
      {redirectingPolicy, "1.0.0.0/8 - - -\n1.0.0.0/8 - - core",
       ":3:1: expected one next hop for each prefix"},
      {policy, rule + "core", ":2:42: expected flags from 0 to 0xffff"},
      {redirects, rule + "0x0/0x0 core # fine", ""},
      {redirectingPolicy, "1.0.0.0/8 - eth0 -\n2.0.0.0/8 -\n3.0.0.0/8 - x core ucst", ""},
      {nextHops, "a 0:1.1.1.1\t2:1.1.1.1 \r\n-b down", ""},
  };
  for (const auto& bad : cases) {
    const std::string told = failure(bad.kind, bad.line);
    EXPECT_THAT(told, StartsWith(bad.message)) << bad.line;
    EXPECT_EQ(told.empty(), bad.message.empty()) << told;
  }
}

TEST(Input, PrefixListsInEitherForm) {
  Files files;
  const auto routes =
      read({files.file("a", "0.0.0.0/0\t-\t-\trjct\n1.8.1.0/24\t64.57.28.112\tge-6/1/0.0\tucst\n"),
            files.file(
                "b", "# without\n10.0.0.0/8\r\n10.1.2.3/16 192.0.2.1\n1.8.1.0/24 64.57.28.112\n")})
          .routes;
  ASSERT_EQ(routes.size(), 4U);
  EXPECT_EQ(routes[0].nextHop, 0U);
  EXPECT_EQ(routes[1].nextHop, 0x40391c70U);
  EXPECT_EQ(routes[3].prefix, (Policy::Prefix{0x0a010000, 16}));

  const auto bad = [&](const std::string& line) {
    return failureOf({files.file("bad", "10.0.0.0/8\n" + line)}).substr(files.path().size());
  };
  EXPECT_THAT(bad("10.0.0.0/8/8"), StartsWith("/bad:2:11: expected a blank after the prefix"));
  EXPECT_THAT(bad("10.0.0.0/8 1.1.1.1xyz"),
              StartsWith("/bad:2:19: expected a blank after the next hop, found \"xyz\""));
  EXPECT_THAT(bad("10.0.0.0/8 1.1.1.1/32"), StartsWith("/bad:2:19: expected a blank after the"));
  EXPECT_THAT(bad("10.0.0.0/8 -1.1.1.1"), StartsWith("/bad:2:13: expected a blank after the"));
  EXPECT_THAT(bad("10.1.0.0/16 gateway"), StartsWith("/bad:2:13: expected an IPv4 address"));
  EXPECT_THAT(bad("2400:0:500::/40"), HasSubstr("IPv6 is not supported yet"));
  EXPECT_THAT(bad("10.0.0.0/8 192.0.2.1"), HasSubstr("expected one next hop for each prefix"));
}

TEST(Input, FilesAreTakenInTheirOrderOrNotAtAll) {
  Files files;
  const auto rules = Policy::generate({.rules = 3});
  const auto first = files.file("first", Policy::lineOf(rules[1]) + Policy::lineOf(rules[0]));
  const auto second = files.file("second", Policy::lineOf(rules[0]) + Policy::lineOf(rules[2]));
  const auto wanted = read({first, files.file("empty", ""), second});
  EXPECT_THAT(wanted.rules, testing::ElementsAre(rules[1], rules[0], rules[2]));
  EXPECT_EQ(wanted.repeated, 1U);
  EXPECT_THAT(failureOf({first, files.path() + "/none"}),
              testing::EndsWith("/none: cannot be read: No such file or directory"));
  EXPECT_THAT(failureOf({files.path()}), HasSubstr("cannot be read: Is a directory"));
}

}  // namespace
}  // namespace PolicyTest
