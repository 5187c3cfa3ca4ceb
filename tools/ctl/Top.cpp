#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <ctime>
#include <deque>
#include <set>

#include "ctl/Picture.h"
#include "tables/Catalogue.h"

namespace Ctl {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kPeriod(1);
/// Interval between reads of the versions: the resolution of the lag. 50 reads per second of some
/// microseconds each take far less than one percent of a core.
constexpr std::chrono::milliseconds kLook(20);

/// If standard input is a terminal, delivers keys immediately and without echo during the object's
/// lifetime.
class Keyboard {
 public:
  Keyboard() : terminal_(::isatty(STDIN_FILENO) == 1 && ::tcgetattr(STDIN_FILENO, &former_) == 0) {
    if (!terminal_) return;
    struct termios raw = former_;
    raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    ::tcsetattr(STDIN_FILENO, TCSANOW, &raw);
  }
  ~Keyboard() {
    if (terminal_) ::tcsetattr(STDIN_FILENO, TCSANOW, &former_);
  }
  Keyboard(const Keyboard&) = delete;
  Keyboard& operator=(const Keyboard&) = delete;

  /// Sleeps; returns true if 'q' was pressed.
  bool quitWithin(std::chrono::milliseconds time) const {
    struct pollfd input {
      terminal_ ? STDIN_FILENO : -1, POLLIN, 0
    };
    if (::poll(&input, 1, static_cast<int>(time.count())) <= 0) return false;
    char key = 0;
    return ::read(STDIN_FILENO, &key, 1) == 1 && (key == 'q' || key == 'Q');
  }

 private:
  struct termios former_ {};
  bool terminal_;
};

/// Recent history of one table's versions.
class Track {
 public:
  explicit Track(const TableKind& kind) : kind_(&kind) {}

  const TableKind& kind() const noexcept { return *kind_; }

  /// Opens the collections that exist now.
  void open(const Drift::Directory& directory) {
    const auto opened = [](std::optional<Tables::Collection>& collection, auto make) {
      try {
        if (!collection || collection->file().replaced()) collection.emplace(make());
      } catch (const Fenrik::Exception&) {
        collection.reset();  // reported by the picture
      }
    };
    opened(log_, [&] { return Tables::Collection(directory, kind_->logPath, kind_->log); });
    opened(reports_, [&] { return reportsOf(directory, *kind_); });
  }

  /// Cheap: reads two words of open files.
  void look() {
    if (!log_ || !reports_) return;
    try {
      announced_ =
          Tables::lineOf(log_->file(), Drift::Format::Line::announced).value_or(announced_);
      reported_ = reportedOf(*reports_, *kind_);
    } catch (const Fenrik::CorruptionDetectedException&) {
      // Reported by the picture.
    }
    const auto now = Clock::now();
    if (steps_.empty() || steps_.back().version != announced_) steps_.push_back({now, announced_});
    while (!steps_.empty() && steps_.front().version <= reported_) steps_.pop_front();
    // Without reports every read may add a step; dropping some costs only resolution.
    constexpr std::size_t kSteps = 4096;
    if (steps_.size() > kSteps) steps_.erase(steps_.begin() + 1);
  }

  /// Age of the oldest version that is announced and not reported.
  std::chrono::milliseconds lag() const {
    if (steps_.empty()) return std::chrono::milliseconds(0);
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - steps_[0].time);
  }

  /// Versions announced and reported per second since the last call.
  std::pair<double, double> rates() {
    const auto now = Clock::now();
    const double seconds = std::chrono::duration<double>(now - ratedAt_).count();
    const bool first = ratedAt_ == Clock::time_point();
    const auto rate = [&](Word version, Word& former) {
      const Word moved = version - std::min(version, std::exchange(former, version));
      return first || seconds <= 0 ? 0.0 : static_cast<double>(moved) / seconds;
    };
    const auto announced = rate(announced_, ratedAnnounced_);
    const auto reported = rate(reported_, ratedReported_);
    ratedAt_ = now;
    return {announced, reported};
  }

 private:
  struct Step {
    Clock::time_point time;
    Word version;
  };

  const TableKind* kind_;
  std::optional<Tables::Collection> log_;
  std::optional<Tables::Collection> reports_;
  Word announced_ = 0;
  Word reported_ = 0;
  std::deque<Step> steps_;
  Clock::time_point ratedAt_;
  Word ratedAnnounced_ = 0;
  Word ratedReported_ = 0;
};

std::string clockText() {
  const std::time_t now = std::time(nullptr);
  std::tm parts{};
  ::localtime_r(&now, &parts);
  std::array<char, 32> text{};
  std::strftime(text.data(), text.size(), "%F %T", &parts);
  return text.data();
}

/// Number of lines of the terminal; without one, plenty.
std::size_t linesOfTerminal() {
  struct winsize size {};
  const bool known = ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 4;
  return known ? size.ws_row - 1U : 1000U;
}

constexpr const char* kHead =
    "table                entries   announced     lag  lag ms in rows/s out rows/s";

std::string rowOf(const TablePicture& table, Track& track) {
  Word entries = 0;
  for (const UnitPicture& unit : table.units) entries += unit.live;
  const auto [in, out] = track.rates();
  std::string text =
      fmt::format("{:<19} {:>8} {:>11} {:>7} {:>7} {:>9.0f} {:>10.0f}", table.kind->name, entries,
                  table.announced, table.lag(), track.lag().count(), in, out);
  if (!table.agentAlive) text += fmt::format("\n  agent: dead, it was process {}", table.agent);
  if (!table.writerAlive) text += "\n  hardware writer: dead";
  const std::string wait = waitOf(table);
  return wait.empty() ? text : text + "\n  " + wait;
}

class Screen {
 public:
  explicit Screen(const Context& context) : context_(context) {}

  /// Opens what is new or was replaced.
  void open() {
    catalogue_.learn(context_.directory, [&](const std::string& text) { problems_.insert(text); });
    const auto& kinds = Tables::tableKinds();
    while (tracks_.size() < kinds.size()) tracks_.emplace_back(kinds[tracks_.size()]);
    for (Track& track : tracks_) track.open(context_.directory);
  }

  int show() {
    Picture picture = pictureOf(context_.directory, false);
    picture.problems.insert(picture.problems.end(), problems_.begin(), problems_.end());
    if (context_.json) {
      Context::line(jsonOf(picture).dump());
      return resultOf(picture);
    }
    std::string text =
        fmt::format("{}  {:.50}  (q ends)\n{}", clockText(), context_.directory.path(), kHead);
    for (const TablePicture& table : picture.tables) {
      const auto track = std::ranges::find_if(
          tracks_, [&](const Track& candidate) { return &candidate.kind() == table.kind; });
      text += '\n' + rowOf(table, *track);
    }
    for (const std::string& wait : picture.waits) text += '\n' + wait;
    for (const std::string& problem : picture.problems) text += "\nproblem: " + problem;
    std::size_t end = 0;
    for (std::size_t lines = linesOfTerminal(); lines != 0 && end != std::string::npos; --lines) {
      end = text.find('\n', end == 0 ? 0 : end + 1);
    }
    Context::line(text.substr(0, end));
    return resultOf(picture);
  }

  void look() {
    for (Track& track : tracks_) track.look();
  }

 private:
  static int resultOf(const Picture& picture) {
    return picture.problems.empty() ? kFine : kFinding;
  }

  const Context& context_;
  Tables::Catalogue catalogue_;
  std::vector<Track> tracks_;
  std::set<std::string> problems_;
};

}  // namespace

int top(const Context& context, const TopRequest& request) {
  Screen screen(context);
  screen.open();
  screen.look();
  if (request.once) return screen.show();
  const Keyboard keyboard;
  int result = kFine;
  auto next = Clock::now();
  while (context.stop == 0) {
    screen.look();
    if (Clock::now() >= next) {
      constexpr const char* kClear = "\x1b[H\x1b[2J";
      if (!context.json) Context::text(kClear);
      screen.open();
      result = screen.show();
      next += kPeriod;
    }
    if (keyboard.quitWithin(kLook)) break;
  }
  return result;
}

}  // namespace Ctl
