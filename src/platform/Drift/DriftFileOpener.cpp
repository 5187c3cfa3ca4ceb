#include "Drift/DriftFile.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <optional>
#include <random>

#include "Drift/FileFacts.h"
#include "Fenrik/Format.h"

namespace Drift {

namespace {

using Stage = MountStage;

const char* explain(int error) {
  switch (error) {
    case ELOOP:
      return "it is a symbolic link; remove it";
    case EISDIR:
      return "it is a directory; remove it";
    case EACCES:
      return "this user may not open it; check owner and mode";
    default:
      return std::strerror(error);
  }
}

/// Raises the process's limit of open files to the maximum; false if it is there already. A mounted
/// collection keeps a descriptor open, which owns its locks.
bool raiseLimitOfFiles() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= limit.rlim_max) return false;
  limit.rlim_cur = limit.rlim_max;
  return ::setrlimit(RLIMIT_NOFILE, &limit) == 0;
}

/// False, with errno set, if the boot id exists but cannot be read. Continuing with another id
/// would discard a collection at this mount or the next one.
bool readBootId(std::uint8_t (&id)[16]) {
  Descriptor fd(::open("/proc/sys/kernel/random/boot_id", O_RDONLY | O_CLOEXEC));
  char text[36] = {};
  // Without a boot id all boots look alike, and files are taken over across reboots.
  if (!fd.valid()) return errno == ENOENT;
  const ssize_t size = ::read(fd.get(), text, sizeof text);
  if (size != sizeof text) {
    if (size >= 0) errno = EIO;
    return false;
  }
  std::size_t nibble = 0;
  for (const char c : text) {
    if (c == '-') continue;
    const int value = c <= '9' ? c - '0' : c - 'a' + 10;
    id[nibble / 2] = static_cast<std::uint8_t>(id[nibble / 2] << 4 | (value & 15));
    ++nibble;
  }
  return true;
}

Word randomWord() {
  std::random_device device;
  return (Word{device()} << 32) | device();
}

std::string temporaryName(const std::string& fileName) {
  static std::atomic<unsigned> count{0};
  return fmt::format(".{}.{}.{}", fileName, ::getpid(), count++);
}

/// Removes the temporary file unless it has been renamed.
struct TemporaryFile {
  int directory;
  std::string name;
  ~TemporaryFile() {
    if (!name.empty()) ::unlinkat(directory, name.c_str(), 0);
  }
};

/// Counters carried over from a discarded collection to its replacement, so that no version is
/// issued twice.
struct Carried {
  Word next = 1;
  Word scratchpad = 0;
};

}  // namespace

/// The steps of opening a file, kept apart from `DriftFile`, which holds the open state.
class DriftFileOpener {
 public:
  DriftFileOpener(const Directory& directory, std::string_view entityPath)
      : directory_(directory), file_(new DriftFile) {
    file_->directory_ = directory.descriptor();
    file_->fileName_ = Directory::fileNameOf(entityPath);
    file_->path_ = directory.path() + "/" + file_->fileName_;
  }

  std::unique_ptr<DriftFile> openForWriting(const Geometry& geometry, DriftFile::Options options) {
    expected_ = headerOf(geometry);
    file_->options_ = options;
    for (;;) {
      Descriptor fd = open(name(), O_RDWR | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
      if (!fd.valid() && errno == ENOENT) {
        make(Stage::made, {});
        return std::move(file_);
      }
      if (!fd.valid()) fail(errno, "open");
      const struct stat found = checkFile(fd.get(), mode());
      lock(fd.get());
      if (!stillNamed(found)) continue;
      file_->fd_ = std::move(fd);
      const Fenrik::String fault = takeOver(found);
      if (fault.empty()) return std::move(file_);
      rebuild(fault, found);
      return std::move(file_);
    }
  }

  std::unique_ptr<DriftFile> openForReading(const Geometry* geometry) {
    file_->fd_ = open(name(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
    if (!file_->fd_.valid()) fail(errno, "open");
    const struct stat found = checkFile(file_->fd_.get(), 0);
    const Fenrik::String fault = readHeader(found, geometry);
    if (!fault.empty()) refuse(faultStage_, fault, "let the agent mount it, which makes it anew");
    map(PROT_READ);
    if (loadWord(file_->words(Format::kReadyOffset)) != Format::kReady) {
      refuse(Stage::notReady, "it is still being made", "try again");
    }
    return std::move(file_);
  }

 private:
  const char* name() const { return file_->fileName_.c_str(); }
  /// Mode of the file to create.
  mode_t mode() const {
    return file_->options_.groupWrites && directory_.isShared() ? Directory::kSharedFileMode
                                                                : directory_.fileMode();
  }

  Descriptor open(const char* name, int flags) const {
    for (;;) {
      const int fd = ::openat(directory_.fd(), name, flags, 0600);
      if (fd >= 0 || errno != EMFILE || !raiseLimitOfFiles()) return Descriptor(fd);
    }
  }

  [[noreturn]] void refuse(Stage stage, const Fenrik::String& found, const char* advice) {
    throw MountException(stage,
                         Fenrik::formatString("{}: {}; {}", file_->path_, found.view(), advice));
  }

  [[noreturn]] void fail(int error, const char* call) {
    if (stageOf(error) == Stage::noSpace) {
      throw MountException(
          Stage::noSpace,
          Fenrik::formatString("{}: no space: {} bytes are needed to begin, {} are free; make room",
                               file_->path_, beginSize(), roomOf(directory_.fd())));
    }
    throw MountException(stageOf(error), Fenrik::formatString("{}: cannot {}: {}", file_->path_,
                                                              call, explain(error)));
  }

  /// Checks type, links, owner and mode. Mode 0 requires only that nobody else may write.
  struct stat checkFile(int fd, mode_t mode) {
    struct stat found {};
    if (::fstat(fd, &found) != 0) fail(errno, "fstat");
    if (!S_ISREG(found.st_mode)) {
      refuse(Stage::refused, "it is not a regular file", "remove it");
    }
    if (!directory_.admits(found.st_uid, found.st_gid)) {
      refuse(Stage::refused,
             Fenrik::formatString("it belongs to user {}, not to user {}", found.st_uid,
                                  directory_.owner()),
             "remove it or give it to that user");
    }
    if (mode != 0 ? (found.st_mode & 07777) != mode : (found.st_mode & S_IWOTH) != 0) {
      refuse(Stage::refused,
             Fenrik::formatString("its mode is {:04o}, not {:04o}", found.st_mode & 07777,
                                  mode != 0 ? mode : directory_.fileMode()),
             "set it right or remove the file");
    }
    if (found.st_nlink > 1) {
      refuse(Stage::refused, Fenrik::formatString("it has {} names", found.st_nlink),
             "leave it one");
    }
    return found;
  }

  static bool tryLock(int fd) {
    struct flock range = lockOf(F_WRLCK, 0, kWriterBytes);
    return ::fcntl(fd, F_OFD_SETLK, &range) == 0;
  }

  void lock(int fd) {
    if (tryLock(fd)) return;
    if (errno != EAGAIN && errno != EACCES) fail(errno, "lock");
    refuse(Stage::busy, "another process writes it", "stop that one first");
  }

  /// Whether the name still refers to the locked file. Another writer may have rebuilt the
  /// collection between our open and our lock.
  bool stillNamed(const struct stat& opened) {
    struct stat found {};
    if (::fstatat(directory_.fd(), name(), &found, AT_SYMLINK_NOFOLLOW) != 0) {
      if (errno == ENOENT) return false;
      fail(errno, "stat");
    }
    return found.st_ino == opened.st_ino && found.st_dev == opened.st_dev;
  }

  Fenrik::String fault(Stage stage, Fenrik::String text) {
    faultStage_ = stage;
    return text;
  }

  /// Reads and checks the fixed header. Returns the fault, or an empty string.
  Fenrik::String readHeader(const struct stat& found, const Geometry* geometry) {
    Format::FixedHeader& header = file_->header_;
    const ssize_t size = ::pread(file_->fd_.get(), &header, sizeof header, 0);
    if (size < 0) fail(errno, "read");
    if (static_cast<std::size_t>(size) < sizeof header) {
      return fault(
          Stage::wrongFormat,
          Fenrik::formatString("it is {} bytes long, shorter than any header", found.st_size));
    }
    Fenrik::String text = headerFault(header, static_cast<Word>(found.st_size));
    if (!text.empty()) {
      const bool ours = header.magic == Format::kMagic &&
                        header.formatVersion == Format::kVersion && header.abi == Format::kAbi;
      return fault(ours ? Stage::damaged : Stage::wrongFormat, std::move(text));
    }
    if (geometry == nullptr) {
      const std::optional<Geometry> own = geometryOf(header);
      if (!own) return fault(Stage::damaged, "its header contradicts itself");
      expected_ = headerOf(*own);
    } else {
      expected_ = headerOf(*geometry);
    }
    return fault(Stage::wrongFormat, headerDifference(header, expected_));
  }

  /// Checks the existing file and maps it. Returns the fault, or an empty string if it can be used.
  Fenrik::String takeOver(const struct stat& found) {
    const Format::FixedHeader wanted = expected_;
    Geometry geometry = *geometryOf(wanted);
    Fenrik::String text = readHeader(found, &geometry);
    if (!text.empty()) return text;
    Format::FixedHeader boot{};
    if (!readBootId(boot.bootId)) fail(errno, "read the boot id for");
    if (std::memcmp(boot.bootId, file_->header_.bootId, sizeof boot.bootId) != 0) {
      return "it was made before the machine was started anew";
    }
    map(PROT_READ | PROT_WRITE);
    if (loadWord(file_->words(Format::kReadyOffset)) != Format::kReady) {
      return "its making was not finished";
    }
    // The last writer may have mounted it without `reserveAll`.
    if (file_->options_.reserveAll &&
        ::fallocate(file_->fd_.get(), 0, 0, static_cast<off_t>(file_->header_.fileSize)) != 0) {
      fail(errno, "reserve");
    }
    for (std::size_t i = 0; i < Format::kLineCount; ++i) {
      CheckedWordWriter word(file_->data(), static_cast<Format::Line>(i));
      if (!word.adopt()) return Fenrik::formatString("its word {} does not prove itself", i);
    }
    const auto active = CheckedWord(file_->data(), Format::Line::active).load().value_or(0);
    if (file_->header_.layout == Format::Layout::hashed &&
        !Format::isIndexOf(file_->header_, Format::ActiveIndex::from(active))) {
      return "its index has a size that it cannot have";
    }
    CheckedWordWriter generation(file_->data(), Format::Line::writerGeneration);
    generation.adopt();
    generation.set(generation.value() + 1);
    sleepingIs();
    noteWriter();
    return "";
  }

  void map(int protection) {
    void* const data =
        ::mmap(nullptr, file_->header_.fileSize, protection, MAP_SHARED, file_->fd_.get(), 0);
    if (data == MAP_FAILED) fail(errno, "map");
    file_->data_ = static_cast<std::byte*>(data);
    file_->writable_ = (protection & PROT_WRITE) != 0;
  }

  /// Until this writer announces that it is awake, rings include the wake-up call.
  void sleepingIs() {
    __atomic_store_n(reinterpret_cast<std::uint32_t*>(file_->data() + Format::kSleepingOffset), 1,
                     __ATOMIC_RELEASE);
  }

  void noteWriter() {
    CheckedWordWriter writer(file_->data(), Format::Line::writer);
    writer.adopt();
    writer.set(static_cast<Word>(::getpid()));
  }

  /// Bytes at the start of a new file that need memory before it can be used.
  Word beginSize() const {
    const bool dense = expected_.layout == Format::Layout::dense;
    const Word words = dense ? expected_.indexWords : startIndexWords(expected_);
    return Format::kHeaderSize + words * sizeof(Word);
  }

  /// Reads the intact counters of a file that is being discarded.
  Carried salvage(const struct stat& found) {
    Carried carried;
    alignas(Format::kLineSize) std::byte page[Format::kHeaderSize] = {};
    if (static_cast<std::size_t>(found.st_size) < sizeof page) return carried;
    const ssize_t size = ::pread(file_->fd_.get(), page, sizeof page, 0);
    // A read error is not damage; continuing would issue versions again.
    if (size < 0) fail(errno, "read");
    if (size != sizeof page) return carried;
    carried.scratchpad = CheckedWord(page, Format::Line::scratchpad).load().value_or(0);
    carried.next = CheckedWord(page, Format::Line::next).load().value_or(0);
    carried.next = std::max({carried.next, carried.scratchpad + 1, Word{1}});
    return carried;
  }

  void rebuild(const Fenrik::String& found, const struct stat& status) {
    const Carried carried = salvage(status);
    // The old file stays open, and thereby locked, until the new one has its name.
    const Descriptor old = std::move(file_->fd_);
    if (file_->data_ != nullptr)
      ::munmap(std::exchange(file_->data_, nullptr), file_->header_.fileSize);
    make(Stage::rebuilt, carried);
    // Processes that still ring for the old file must not take its writer for awake.
    const std::uint32_t sleeping = 1;
    if (static_cast<Word>(status.st_size) >= Format::kHeaderSize) {
      (void)!::pwrite(old.get(), &sleeping, sizeof sleeping, Format::kSleepingOffset);
    }
    file_->reason_ =
        Fenrik::formatString("{}: {}; made anew and empty", file_->path_, found.view());
  }

  /// Removes temporary files of this collection whose creators died.
  void removeLeftovers() {
    for (const std::string& left : directory_.temporaries(file_->fileName_)) {
      const Descriptor fd(
          ::openat(directory_.fd(), left.c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
      if (fd.valid() && tryLock(fd.get())) ::unlinkat(directory_.fd(), left.c_str(), 0);
    }
  }

  /// Creates the file under a temporary name, fills it and renames it.
  void make(Stage stage, const Carried& carried) {
    Format::FixedHeader& header = file_->header_;
    header = expected_;
    header.hashSeed = randomWord();
    if (!readBootId(header.bootId)) fail(errno, "read the boot id for");
    header.checksum = headerChecksum(header);

    removeLeftovers();
    TemporaryFile temporary{directory_.fd(), temporaryName(file_->fileName_)};
    Descriptor fd =
        open(temporary.name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC);
    if (!fd.valid()) {
      const int error = errno;
      temporary.name.clear();
      fail(error, "make");
    }
    if (::fchmod(fd.get(), mode()) != 0) fail(errno, "set the mode of");
    lock(fd.get());
    if (::ftruncate(fd.get(), static_cast<off_t>(header.fileSize)) != 0) fail(errno, "size");
    const Word begin = file_->options_.reserveAll ? header.fileSize : beginSize();
    if (::fallocate(fd.get(), 0, 0, static_cast<off_t>(begin)) != 0) fail(errno, "reserve");
    file_->fd_ = std::move(fd);
    map(PROT_READ | PROT_WRITE);
    fill(stage, carried);
    const int renamed =
        stage == Stage::made
            ? ::renameat2(directory_.fd(), temporary.name.c_str(), directory_.fd(), name(),
                          RENAME_NOREPLACE)
            : ::renameat(directory_.fd(), temporary.name.c_str(), directory_.fd(), name());
    if (renamed != 0 && errno == EEXIST) {
      refuse(Stage::busy, "another process made it at the same time", "stop that one first");
    }
    if (renamed != 0) fail(errno, "name");
    temporary.name.clear();
    file_->stage_ = stage;
  }

  void fill(Stage stage, const Carried& carried) {
    std::memcpy(file_->data(), &file_->header_, sizeof file_->header_);
    for (std::size_t i = 0; i < Format::kLineCount; ++i) {
      CheckedWordWriter(file_->data(), static_cast<Format::Line>(i))
          .set(initial(i, stage, carried));
    }
    if (file_->options_.reserveAll) {
      // Best effort: if the kernel cannot, pages are allocated one by one.
      ::madvise(file_->data(), file_->header_.fileSize, MADV_POPULATE_WRITE);
    }
    sleepingIs();
    storeWord(file_->words(Format::kReadyOffset), Format::kReady);
  }

  Word initial(std::size_t line, Stage stage, const Carried& carried) const {
    switch (static_cast<Format::Line>(line)) {
      case Format::Line::active:
        if (expected_.layout == Format::Layout::dense) return 0;
        return activeIndexOf(0, startIndexWords(expected_), 0).word();
      case Format::Line::first:
      case Format::Line::next:
        return carried.next;
      case Format::Line::announced:
        return carried.next - 1;
      case Format::Line::scratchpad:
        return carried.scratchpad;
      case Format::Line::wiped:
        return stage == Stage::rebuilt ? 1 : 0;
      case Format::Line::writerGeneration:
        return 1;
      case Format::Line::writer:
        return static_cast<Word>(::getpid());
      default:
        return 0;
    }
  }

  const Directory& directory_;
  std::unique_ptr<DriftFile> file_;
  Format::FixedHeader expected_{};
  Stage faultStage_ = Stage::wrongFormat;
};

std::unique_ptr<DriftFile> DriftFile::openForWriting(const Directory& directory,
                                                     std::string_view entityPath,
                                                     const Geometry& geometry, Options options) {
  return DriftFileOpener(directory, entityPath).openForWriting(geometry, options);
}

std::unique_ptr<DriftFile> DriftFile::openForReading(const Directory& directory,
                                                     std::string_view entityPath,
                                                     const Geometry* geometry) {
  return DriftFileOpener(directory, entityPath).openForReading(geometry);
}

}  // namespace Drift
