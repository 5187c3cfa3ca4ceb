#include "Blipline/TraceFile.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>

#include "Fenrik/Format.h"

namespace Blipline {
namespace {

[[noreturn]] void fail(std::string_view doing, const std::string& path, int error) {
  throw TraceFileException(Fenrik::formatString("ring trace file {}: could not {} it: {}", path,
                                                doing, std::strerror(error)));
}

RingFacts factsOf(std::size_t ringBytes, unsigned fileIndex) {
  const RingClock::Base& clock = RingClock::base();
  RingFacts facts{kRingMagic,
                  kRingVersion,
                  kByteOrderMark,
                  kHeaderBytes,
                  kBlockBytes,
                  ringBytes,
                  static_cast<std::uint32_t>(::getpid()),
                  fileIndex,
                  clock.kind,
                  0,
                  clock.ticksPerSecond,
                  clock.instant.tick,
                  clock.instant.monotonic,
                  clock.realtime,
                  0};
  facts.checksum =
      ringChecksum(std::as_bytes(std::span(&facts, 1)).first(offsetof(RingFacts, checksum)));
  return facts;
}

/// The bytes of a description as stored in the file.
std::string descriptionBytes(MsgId msgId, const MsgFacts& facts) {
  // Longer texts, which do not occur in practice, are cut, so that lengths fit their fields.
  constexpr std::size_t kLongest = 4000;
  DescriptionHead head{};
  std::string texts;
  std::size_t part = 0;
  for (const std::string_view text :
       {facts.letters, facts.file, facts.className, facts.function, facts.text}) {
    texts += text.substr(0, kLongest);
    head.lengths[part++] = static_cast<std::uint16_t>(std::min(text.size(), kLongest));
  }
  texts.resize((texts.size() + 7) & ~std::size_t{7});
  head.bytes = static_cast<std::uint32_t>(sizeof head + texts.size());
  head.msgId = static_cast<std::uint32_t>(msgId);
  head.line = facts.line;
  std::string bytes(sizeof head, '\0');
  bytes += texts;
  std::memcpy(bytes.data(), &head, sizeof head);
  head.checksum = ringChecksum(std::as_bytes(std::span(bytes)));
  std::memcpy(bytes.data(), &head, sizeof head);
  return bytes;
}

bool writeAt(int fd, std::string_view bytes, std::uint64_t offset) noexcept {
  while (!bytes.empty()) {
    const ssize_t written = ::pwrite(fd, bytes.data(), bytes.size(), static_cast<off_t>(offset));
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(written));
    offset += static_cast<std::uint64_t>(written);
  }
  return true;
}

}  // namespace

TraceFileException::~TraceFileException() = default;

TraceFile::TraceFile(const std::string& path, std::size_t ringBytes, unsigned fileIndex)
    : ringBytes_(std::bit_ceil(std::clamp(ringBytes, kRingBytesMin, kRingBytesMax))) {
  const std::string fresh = path + ".new";
  ::unlink(fresh.c_str());
  fd_ = ::open(fresh.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0640);
  if (fd_ < 0) fail("create", fresh, errno);
  try {
    mapNew(fresh, ringBytes_, fileIndex);
    const std::string old = path + ".old";
    if (::rename(path.c_str(), old.c_str()) != 0 && errno != ENOENT) fail("keep", path, errno);
    if (::rename(fresh.c_str(), path.c_str()) != 0) fail("name", path, errno);
  } catch (...) {
    ::close(fd_);
    ::unlink(fresh.c_str());
    throw;
  }
}

TraceFile::~TraceFile() { ::close(fd_); }

void TraceFile::mapNew(const std::string& path, std::size_t ringBytes, unsigned fileIndex) {
  const std::size_t bytes = kHeaderBytes + ringBytes;
  if (const int error = ::posix_fallocate(fd_, 0, static_cast<off_t>(bytes)); error != 0)
    fail(fmt::format("reserve {} bytes for", bytes), path, error);
  void* const place = mapping_.map(fd_, bytes);
  if (place == nullptr) fail("map", path, errno);
  header_ = ::new (place) RingHeader{factsOf(ringBytes, fileIndex), 0, 0};
  ring_.placeIs(header_, static_cast<std::byte*>(place) + kHeaderBytes, ringBytes);
}

void TraceFile::descriptionAdd(MsgId msgId, const MsgFacts& facts) {
  const std::string bytes = descriptionBytes(msgId, facts);
  const std::uint64_t before = header_->descriptionBytes.load(std::memory_order_relaxed);
  // Checked after the load above, which detects a truncated file.
  const bool room = !mapping_.lost() && before + bytes.size() <= kDescriptionBytesMax;
  if (room && writeAt(fd_, bytes, kHeaderBytes + ringBytes_ + before))
    header_->descriptionBytes.store(before + bytes.size(), std::memory_order_release);
  const auto index = static_cast<std::size_t>(msgId);
  if (index >= known_.size()) known_.resize(std::bit_ceil(index + 1));
  known_[index] = 1;
}

}  // namespace Blipline
