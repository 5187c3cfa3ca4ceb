#include "Blipline/RingReader.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <string_view>
#include <utility>

#include "Fenrik/Format.h"
#include "Kiv/LineSink.h"

namespace Blipline {

namespace {

std::uint64_t loadWord(std::span<const std::byte> bytes) noexcept {
  std::uint64_t word = 0;
  std::memcpy(&word, bytes.data(), sizeof word);
  return word;
}

template <class T>
T loadAs(std::span<const std::byte> bytes) noexcept {
  T value{};
  std::memcpy(&value, bytes.data(), sizeof value);
  return value;
}

std::string numberText(char letter, std::span<const std::byte> bytes) {
  switch (letter) {
    case 'c':
      return fmt::format("{}", loadAs<std::uint8_t>(bytes));
    case 's':
      return fmt::format("{}", loadAs<std::uint16_t>(bytes));
    case 'h':
      return fmt::format("{}", loadAs<std::int16_t>(bytes));
    case 'i':
      return fmt::format("{}", loadAs<std::int32_t>(bytes));
    case 'u':
      return fmt::format("{}", loadAs<std::uint32_t>(bytes));
    case 'l':
      return fmt::format("{}", loadAs<std::int64_t>(bytes));
    case 'L':
      return fmt::format("{}", loadAs<std::uint64_t>(bytes));
    default:
      return fmt::format("{}", loadAs<double>(bytes));
  }
}

/// Makes text from an untrusted file safe for a terminal.
std::string printable(std::string_view text) {
  std::string clean;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < ' ' || byte == 0x7f)
      clean += fmt::format("\\x{:02x}", byte);
    else
      clean += c;
  }
  return clean;
}

std::string hexText(std::span<const std::byte> bytes) {
  std::string text;
  for (const std::byte byte : bytes) text += fmt::format("{:02x}", std::to_integer<int>(byte));
  return text;
}

}  // namespace

RingFileException::~RingFileException() = default;

const char* ringFileStateName(RingFileState state) noexcept {
  switch (state) {
    case RingFileState::absent:
      return "absent";
    case RingFileState::foreign:
      return "foreign";
    case RingFileState::otherVersion:
      return "other version";
    case RingFileState::damaged:
      return "damaged";
    case RingFileState::lapped:
      return "lapped";
  }
  return "?";
}

/// The open file. It is read, not mapped, so that truncation during the read is an ordinary error.
struct RingFile::Source {
  explicit Source(const std::string& path)
      : fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)) {}
  Source(const Source&) = delete;
  Source& operator=(const Source&) = delete;
  ~Source() {
    if (fd >= 0) ::close(fd);
  }

  bool read(std::span<std::byte> into, std::uint64_t offset) const {
    while (!into.empty()) {
      const ssize_t got = ::pread(fd, into.data(), into.size(), static_cast<off_t>(offset));
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) return false;
      into = into.subspan(static_cast<std::size_t>(got));
      offset += static_cast<std::uint64_t>(got);
    }
    return true;
  }

  /// A header word that the writer changes. Reads before and after it are not reordered with it.
  std::uint64_t word(std::size_t offset) const {
    std::array<std::byte, 8> bytes{};
    __sync_synchronize();
    if (!read(bytes, offset)) return 0;
    __sync_synchronize();
    return loadWord(bytes);
  }
  std::uint64_t committed() const { return word(offsetof(RingHeader, committed)); }

  int fd;
};

RingFile::RingFile(std::string path) : path_(std::move(path)) {
  const Source source(path_);
  if (source.fd < 0) fail(RingFileState::absent, std::strerror(errno));
  factsRead(source);
  ringRead(source);
  descriptionsRead(source);
}

void RingFile::fail(RingFileState state, const std::string& what) const {
  throw RingFileException(
      state, Fenrik::formatString("ring file {}: {}: {}", path_, ringFileStateName(state), what));
}

void RingFile::factsRead(const Source& source) {
  struct stat status {};
  if (::fstat(source.fd, &status) != 0 || !S_ISREG(status.st_mode))
    fail(RingFileState::foreign, "it is no regular file");
  if (!source.read(std::as_writable_bytes(std::span(&facts_, 1)), 0))
    fail(RingFileState::foreign, fmt::format("its {} bytes hold no header", status.st_size));
  if (facts_.magic != kRingMagic)
    fail(RingFileState::foreign, "it does not begin with the letters of a ring file");
  if (facts_.byteOrder != kByteOrderMark || facts_.version != kRingVersion)
    fail(
        RingFileState::otherVersion,
        fmt::format("version {} and byte order {:08x} at offset 8, this reader knows {} and {:08x}",
                    facts_.version, facts_.byteOrder, kRingVersion, kByteOrderMark));
  if (facts_.checksum !=
      ringChecksum(std::as_bytes(std::span(&facts_, 1)).first(offsetof(RingFacts, checksum))))
    fail(RingFileState::damaged, "the header's checksum at offset 80 does not fit it");
  if (facts_.headerBytes != kHeaderBytes || facts_.blockBytes != kBlockBytes ||
      facts_.ringBytes < kRingBytesMin || facts_.ringBytes > kRingBytesMax ||
      !std::has_single_bit(facts_.ringBytes) || facts_.ticksPerSecond == 0)
    fail(RingFileState::damaged, "the header's sizes cannot be");
  if (static_cast<std::uint64_t>(status.st_size) < kHeaderBytes + facts_.ringBytes)
    fail(RingFileState::damaged, fmt::format("{} bytes long, {} are needed: it was cut off",
                                             status.st_size, kHeaderBytes + facts_.ringBytes));
}

void RingFile::ringRead(const Source& source) {
  ring_.resize(facts_.ringBytes);
  // A writer at full speed can overtake a reader, but hardly at every attempt.
  constexpr int kTries = 20;
  // Beyond the number of bytes that any process can write.
  constexpr std::uint64_t kPositionMax = std::uint64_t{1} << 62;
  for (int attempt = 0; attempt < kTries; ++attempt) {
    const std::uint64_t committed = source.committed();
    if (!source.read(ring_, kHeaderBytes))
      fail(RingFileState::damaged, "it was cut off while it was read");
    const std::uint64_t after = source.committed();
    if (committed % 8 != 0 || after < committed || after > kPositionMax)
      fail(RingFileState::damaged, fmt::format("the position {} at offset {} cannot be", committed,
                                               offsetof(RingHeader, committed)));
    // The block that the writer was in at the end overlays the oldest one.
    const std::uint64_t end = after / kBlockBytes * kBlockBytes + kBlockBytes;
    const std::uint64_t first = end > facts_.ringBytes ? end - facts_.ringBytes : 0;
    if (first < committed || committed == 0) return blocksWalk(first, committed);
  }
  fail(RingFileState::lapped, "its writer is faster than this reader; a larger ring helps");
}

void RingFile::blocksWalk(std::uint64_t first, std::uint64_t committed) {
  for (std::uint64_t position = first; position < committed; position += kBlockBytes) {
    // A writer about to enter a block has committed only the block's start.
    const std::uint64_t end = std::min<std::uint64_t>(committed, position + kBlockBytes);
    const auto block = std::span(ring_).subspan(position & (facts_.ringBytes - 1));
    const auto head = loadAs<BlockHead>(block);
    if (end - position < sizeof head || head.position != position) {
      problems_.push_back(
          fmt::format("the block at offset {} is not the one of position {}; its records are lost",
                      kHeaderBytes + (position & (facts_.ringBytes - 1)), position));
      continue;
    }
    lastBlock_ = head;
    blockWalk(position, end);
  }
}

void RingFile::blockWalk(std::uint64_t position, std::uint64_t end) {
  const std::uint64_t block = position;
  position += sizeof(BlockHead);
  while (position < end) {
    const std::uint64_t offset = position & (facts_.ringBytes - 1);
    const auto rest = std::span<const std::byte>(ring_).subspan(offset, end - position);
    // A zero word where the next record would start: the block had no room for it.
    if (rest.size() >= sizeof(RecordHead) && loadWord(rest) == 0 && end == block + kBlockBytes)
      return;
    const auto head = rest.size() >= kRecordHeadBytes ? loadAs<RecordHead>(rest) : RecordHead{};
    if (head.mark != kRecordMark || head.bytes < kRecordHeadBytes || head.bytes % 8 != 0 ||
        head.bytes > std::min(rest.size(), kRecordBytesMax)) {
      problems_.push_back(
          fmt::format("what stands at offset {} is no record; the rest of its block is lost",
                      kHeaderBytes + offset));
      return;
    }
    records_.push_back({loadWord(rest.subspan(sizeof head)), head.msgId,
                        rest.subspan(kRecordHeadBytes, head.bytes - kRecordHeadBytes)});
    position += head.bytes;
  }
}

void RingFile::descriptionsRead(const Source& source) {
  const std::uint64_t bytes = source.word(offsetof(RingHeader, descriptionBytes));
  std::vector<std::byte> all;
  if (bytes <= kDescriptionBytesMax) {
    struct stat status {};
    ::fstat(source.fd, &status);
    const std::uint64_t begin = kHeaderBytes + facts_.ringBytes;
    const auto there = static_cast<std::uint64_t>(status.st_size);
    all.resize(std::min(bytes, there > begin ? there - begin : 0));
    if (!source.read(all, begin)) all.clear();
  }
  if (all.size() != bytes)
    problems_.push_back(fmt::format("of {} bytes of descriptions {} are there", bytes, all.size()));
  for (std::span<std::byte> rest = all; !rest.empty();) {
    const auto head =
        rest.size() >= sizeof(DescriptionHead) ? loadAs<DescriptionHead>(rest) : DescriptionHead{};
    std::size_t texts = 0;
    for (const std::uint16_t length : head.lengths) texts += length;
    bool sound =
        head.bytes >= sizeof head && head.bytes <= rest.size() && texts <= head.bytes - sizeof head;
    if (sound) {
      const auto sum = rest.subspan(offsetof(DescriptionHead, checksum), 8);
      std::ranges::fill(sum, std::byte{0});
      sound = ringChecksum(rest.first(head.bytes)) == head.checksum;
    }
    if (!sound) {
      problems_.push_back(
          fmt::format("the description at offset {} is damaged; it and those behind it are lost",
                      kHeaderBytes + facts_.ringBytes + (all.size() - rest.size())));
      return;
    }
    std::string_view text(reinterpret_cast<const char*>(rest.data()) + sizeof head, texts);
    std::array<std::string, 5> parts;
    for (std::size_t part = 0; part < parts.size(); ++part) {
      parts[part] = printable(text.substr(0, head.lengths[part]));
      text.remove_prefix(head.lengths[part]);
    }
    descriptions_[head.msgId] = {parts[0], parts[1], parts[2], parts[3], parts[4], head.line};
    rest = rest.subspan(head.bytes);
  }
}

std::string RingFile::text(const Record& record) const {
  const auto found = descriptions_.find(record.msgId);
  if (found == descriptions_.end())
    return fmt::format("message {} is not described: {}", record.msgId, hexText(record.numbers));
  const std::string_view format = found->second.text;
  std::string_view letters = found->second.letters;
  std::span<const std::byte> numbers = record.numbers;
  std::string text;
  for (std::size_t at = 0; at < format.size(); ++at) {
    if (format.substr(at, 2) != "{}") {
      text += format[at];
      continue;
    }
    ++at;
    const std::size_t bytes = letters.empty() ? 0 : letterBytes(letters[0]);
    if (bytes == 0 || bytes > numbers.size()) {
      text += '?';
      continue;
    }
    text += numberText(letters[0], numbers);
    letters.remove_prefix(1);
    numbers = numbers.subspan(bytes);
  }
  return text;
}

namespace {

/// Converts the ticks of one process to time of day.
class ProcessClock {
 public:
  explicit ProcessClock(const RingFacts& facts)
      : facts_(facts), nanosPerTick_(1e9 / static_cast<double>(facts.ticksPerSecond)) {}

  /// Replaces the initial rate by the more precise one over the file's life.
  void refine(const BlockHead& block) {
    constexpr std::uint64_t kWorthwhile = 100'000'000;
    // A rate that differs by more than a tenth indicates a damaged block.
    constexpr double kTolerance = 0.1;
    const std::uint64_t nanos = block.monotonic - facts_.baseMonotonic;
    const std::uint64_t ticks = block.tick - facts_.baseTick;
    if (static_cast<std::int64_t>(nanos) <
            static_cast<std::int64_t>(std::max(kWorthwhile, span_)) ||
        static_cast<std::int64_t>(ticks) <= 0)
      return;
    const double seen = static_cast<double>(nanos) / static_cast<double>(ticks);
    const double told = 1e9 / static_cast<double>(facts_.ticksPerSecond);
    if (seen < told * (1 - kTolerance) || seen > told * (1 + kTolerance)) return;
    nanosPerTick_ = seen;
    span_ = nanos;
  }

  std::int64_t time(std::uint64_t tick) const {
    // Untrusted ticks are limited to the year 2262, the maximum of the result.
    constexpr double kFarthest = 9.2e18;
    const auto since = static_cast<double>(static_cast<std::int64_t>(tick - facts_.baseTick));
    const auto base =
        static_cast<std::int64_t>(std::min<std::uint64_t>(facts_.baseRealtime, 1ull << 62));
    const double room = kFarthest - static_cast<double>(base);
    return base + static_cast<std::int64_t>(std::clamp(since * nanosPerTick_, -room, room));
  }

 private:
  RingFacts facts_;
  double nanosPerTick_;
  std::uint64_t span_ = 0;
};

std::string placeOf(const RingFile& file, std::uint32_t msgId) {
  const auto found = file.descriptions().find(msgId);
  if (found == file.descriptions().end()) return {};
  const RingFile::Description& site = found->second;
  return fmt::format("{}:{} {}::{}", site.file, site.line, site.className, site.function);
}

}  // namespace

std::vector<RingMessage> ringMessages(std::span<const RingFile> files) {
  using Process = std::pair<std::uint32_t, std::uint64_t>;
  const auto processOf = [](const RingFile& file) {
    return Process{file.facts().processId, file.facts().baseTick};
  };
  std::map<Process, ProcessClock> clocks;
  for (const RingFile& file : files)
    clocks.try_emplace(processOf(file), file.facts()).first->second.refine(file.lastBlock());
  std::vector<RingMessage> messages;
  for (const RingFile& file : files) {
    const ProcessClock& clock = clocks.at(processOf(file));
    for (const RingFile::Record& record : file.records())
      messages.push_back({clock.time(record.tick), file.facts().processId, file.facts().fileIndex,
                          placeOf(file, record.msgId), file.text(record)});
  }
  // Stable, so that records of one thread with equal ticks keep their order.
  std::ranges::stable_sort(messages, {}, &RingMessage::time);
  return messages;
}

std::string ringLine(const RingMessage& message) {
  constexpr std::int64_t kNanosPerSecond = 1'000'000'000;
  std::time_t second = message.time / kNanosPerSecond;
  std::int64_t nanos = message.time % kNanosPerSecond;
  if (nanos < 0) {
    nanos += kNanosPerSecond;
    --second;
  }
  std::tm utc{};
  ::gmtime_r(&second, &utc);
  return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:09}Z {}/{} {}: {}", utc.tm_year + 1900,
                     utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec, nanos,
                     message.processId, message.fileIndex,
                     message.place.empty() ? "?" : Kiv::withoutControls(message.place),
                     Kiv::withoutControls(message.text));
}

}  // namespace Blipline
