#include <algorithm>

#include "ctl/Picture.h"
#include "ctl/Values.h"

namespace Ctl {
namespace {

const char* operationOf(const Tables::LogRow& row) {
  if (row.tableDelete) return "clear";
  return row.entryDelete ? "remove" : "write";
}

/// Prints the records of one log in order.
class LogPrinter {
 public:
  LogPrinter(const Context& context, const LogRequest& request)
      : context_(context),
        kind_(tableOf(request.table)),
        log_(context.directory, kind_.logPath, kind_.log),
        view_(log_.file()),
        version_(request.since.value_or(0)),
        record_(view_.recordWords()) {
    if (request.since) checkSince(*request.since, request.follow);
    if (!Tables::isWritten(context.directory, kind_.logPath)) tellDead();
  }

  /// Prints the existing records.
  void print() {
    while (context_.stop == 0) {
      seen_ = log_.file().doorbell();
      try {
        if (!view_.findFrom(version_, record_)) return;
        Tables::logRowIs(row_, kind_, record_);
        show();
      } catch (const Fenrik::CorruptionDetectedException& e) {
        context_.say(e.what());
        result_ = kFinding;
        // Without the ends of the window the next version is unknown.
        if (!passable()) return;
      }
      ++version_;
    }
  }

  /// Prints records as they are logged, until the command shall end.
  void follow() {
    while (context_.stop == 0) {
      print();
      log_.file().waitForRing(seen_, std::chrono::milliseconds(100));
      if (!log_.file().replaced()) continue;
      context_.say("the log was made anew; look again");
      result_ = kFinding;
      return;
    }
  }

  int result() const noexcept { return result_; }

 private:
  void checkSince(Word since, bool follow) {
    const auto window = view_.window();
    if (since >= window.next) {
      if (follow) return;
      context_.say(fmt::format("{}: version {} is not logged yet; the log ends with {}", kind_.name,
                               since, window.next - 1));
    } else if (since < window.first) {
      context_.say(fmt::format("{}: the versions {} to {} are gone: the hardware has them",
                               kind_.name, since, window.first - 1));
    } else {
      return;
    }
    result_ = kFinding;
  }

  /// Reports that the agent is dead: its log is not cleaned, and its last versions are not
  /// announced.
  void tellDead() const {
    const auto window = view_.window();
    const Word last = window.next - 1;
    const Word reported = std::min(reportedOf(context_.directory, kind_), last);
    const Word announced =
        std::min(Tables::lineOf(log_.file(), Drift::Format::Line::announced).value_or(last), last);
    const auto part = [&](Word from, Word to, const char* what) {
      if (from > to) return std::string();
      return fmt::format("; {} to {} {}", from, to, what);
    };
    context_.say(fmt::format(
        "{}: no agent is at work{}{}{}", kind_.name,
        part(window.first, reported, "are in hardware, and the next agent removes them"),
        part(std::max(window.first, reported + 1), announced, "wait for the hardware"),
        part(std::max(window.first, announced + 1), last, "wait for the next agent")));
  }

  bool passable() const {
    try {
      const auto window = view_.window();
      return version_ >= window.first && version_ < window.next;
    } catch (const Fenrik::CorruptionDetectedException&) {
      return false;
    }
  }

  void show() const {
    const char* const operation = operationOf(row_);
    if (!context_.json) {
      const std::string text = row_.tableDelete   ? ""
                               : row_.entryDelete ? kind_.key.text(row_.entry.data())
                                                  : kind_.entry.text(row_.entry.data());
      return context_.line(
          fmt::format("{} unit {} {} {}", row_.version, row_.unit, operation, text));
    }
    Json line{{"version", row_.version}, {"unit", row_.unit.value()}, {"operation", operation}};
    if (!row_.tableDelete) line["key"] = jsonOf(kind_.key, row_.entry.data());
    if (!row_.tableDelete && !row_.entryDelete)
      line["entry"] = jsonOf(kind_.entry, row_.entry.data());
    context_.line(line.dump());
  }

  const Context& context_;
  const TableKind& kind_;
  Tables::Collection log_;
  Drift::DenseView view_;
  Word version_;
  std::vector<Word> record_;
  Tables::LogRow row_;
  std::uint32_t seen_ = 0;
  int result_ = kFine;
};

}  // namespace

int log(const Context& context, const LogRequest& request) {
  LogPrinter printer(context, request);
  request.follow ? printer.follow() : printer.print();
  return printer.result();
}

}  // namespace Ctl
