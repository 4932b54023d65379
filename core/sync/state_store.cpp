#include "core/sync/state_store.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

namespace corvane {
namespace fs = std::filesystem;

namespace {

[[noreturn]] void throwErrno(int error, const std::string& what) {
  throw std::system_error(error, std::generic_category(), what);
}

// Creates `dir` and its missing parents, each 0700, and makes `dir` itself
// 0700 however it came to exist (another program, or this one before the
// store, may have made it with the umask's mode). Existing parents are left
// as the user has them.
void makePrivateDirectory(const fs::path& dir) {
  std::vector<fs::path> missing;
  for (fs::path p = dir; !p.empty(); p = p.parent_path()) {
    struct stat st;
    if (::stat(p.c_str(), &st) == 0) {
      if (!S_ISDIR(st.st_mode))
        throwErrno(ENOTDIR, "couldn't create the directory " + dir.string());
      break;
    }
    if (errno != ENOENT) throwErrno(errno, "couldn't create the directory " + dir.string());
    missing.push_back(p);
    if (p == p.parent_path()) break;
  }
  for (auto it = missing.rbegin(); it != missing.rend(); ++it) {
    if (::mkdir(it->c_str(), 0700) == 0) {
      // mkdir's mode passes through the umask; the state is private regardless.
      ::chmod(it->c_str(), 0700);
    } else if (errno != EEXIST) {
      throwErrno(errno, "couldn't create the directory " + dir.string());
    }
  }
  struct stat st;
  if (::stat(dir.c_str(), &st) != 0) throwErrno(errno, "couldn't examine " + dir.string());
  if ((st.st_mode & 07777) != 0700 && ::chmod(dir.c_str(), 0700) != 0) {
    throwErrno(errno, "couldn't make " + dir.string() + " private");
  }
}

// fsync on macOS only reaches the drive's cache; F_FULLFSYNC reaches the medium.
int flushToDisk(int fd) {
#ifdef F_FULLFSYNC
  if (::fcntl(fd, F_FULLFSYNC) == 0) return 0;
#endif
  int rc;
  do {
    rc = ::fsync(fd);
  } while (rc != 0 && errno == EINTR);
  return rc;
}

// Returns 0 or the errno of the first failure. The descriptor is closed either way.
int writeFlushAndClose(int fd, const std::string& bytes) {
  int error = 0;
  std::size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
    if (n < 0) {
      if (errno == EINTR) continue;
      error = errno;
      break;
    }
    done += static_cast<std::size_t>(n);
  }
  if (error == 0 && flushToDisk(fd) != 0) error = errno;
  // close is never retried: the descriptor is gone even when it reports EINTR.
  if (::close(fd) != 0 && error == 0) error = errno;
  return error;
}

// Makes the rename itself durable. File systems that can't sync a directory
// say so with EINVAL; there is nothing more to do on those.
void flushDirectory(const fs::path& dir) {
  const int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) throwErrno(errno, "couldn't open " + dir.string() + " to flush it");
  const int rc = flushToDisk(fd);
  const int error = errno;
  ::close(fd);
  if (rc != 0 && error != EINVAL && error != ENOTSUP) {
    throwErrno(error, "couldn't flush " + dir.string());
  }
}

bool readWholeFile(const fs::path& path, std::string& out) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  char buf[64 * 1024];
  bool ok = true;
  for (;;) {
    const ssize_t n = ::read(fd, buf, sizeof buf);
    if (n == 0) break;
    if (n < 0) {
      if (errno == EINTR) continue;
      ok = false;
      break;
    }
    out.append(buf, static_cast<std::size_t>(n));
  }
  ::close(fd);
  return ok;
}

// What tells one state file from another without reading it. Every save
// renames a new file into place, so another writer's file shows as another
// inode or time even where the size happens to match.
std::optional<FileStateStore::FileStamp> stampOf(const fs::path& path) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) return std::nullopt;
#if defined(__APPLE__)
  const struct timespec& changed = st.st_mtimespec;
#else
  const struct timespec& changed = st.st_mtim;
#endif
  return FileStateStore::FileStamp{static_cast<std::uint64_t>(st.st_dev),
                                   static_cast<std::uint64_t>(st.st_ino),
                                   static_cast<std::int64_t>(st.st_size),
                                   static_cast<std::int64_t>(changed.tv_sec),
                                   static_cast<std::int64_t>(changed.tv_nsec)};
}

}  // namespace

FileStateStore::FileStateStore(fs::path directory)
    : directory_(std::move(directory)), path_(directory_ / fileName) {}

AgentState FileStateStore::load() {
  std::lock_guard lock(mutex_);
  try {
    const auto stamp = stampOf(path_);
    if (stamp && known_ && known_->stamp == *stamp) return known_->state;
    known_.reset();
    std::string text;
    if (!readWholeFile(path_, text)) return {};
    const auto j = nlohmann::json::parse(text, nullptr, /*allow_exceptions=*/false);
    if (j.is_discarded()) return {};
    auto state = j.get<AgentState>();
    // Stamped before the read: a file replaced meanwhile reads again next time.
    if (stamp) known_ = Known{*stamp, state};
    return state;
  } catch (const std::exception&) {
    return {};
  }
}

void FileStateStore::prepareDirectory() const { makePrivateDirectory(directory_); }

void FileStateStore::save(const AgentState& state) {
  std::lock_guard lock(mutex_);
  prepareDirectory();
  // Most saves of an idle cycle would write the file it has.
  if (known_ && known_->state == state && stampOf(path_) == known_->stamp) return;
  known_.reset();

  // nlohmann::json keeps object keys sorted, so equal states give equal
  // files. Ill-formed UTF-8 in a text becomes U+FFFD rather than failing the save.
  const std::string bytes =
      nlohmann::json(state).dump(2, ' ', false, nlohmann::json::error_handler_t::replace);

  const fs::path temp =
      directory_ / (std::string(fileName) + "." + std::to_string(::getpid()) + ".tmp");
  const int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd < 0) throwErrno(errno, "couldn't create " + temp.string());
  // A file left by an earlier crash of this pid keeps its old mode through O_CREAT.
  int error = ::fchmod(fd, 0600) == 0 ? 0 : errno;
  if (error != 0) {
    ::close(fd);
  } else {
    error = writeFlushAndClose(fd, bytes);
  }
  if (error == 0 && ::rename(temp.c_str(), path_.c_str()) != 0) error = errno;
  if (error != 0) {
    ::unlink(temp.c_str());
    throwErrno(error, "couldn't save the agent state to " + path_.string());
  }
  flushDirectory(directory_);
  if (const auto stamp = stampOf(path_)) known_ = Known{*stamp, state};
}

MemoryStateStore::MemoryStateStore(AgentState initial) : state_(std::move(initial)) {}

AgentState MemoryStateStore::state() const {
  std::lock_guard lock(mutex_);
  return state_;
}

AgentState MemoryStateStore::load() { return state(); }

void MemoryStateStore::save(const AgentState& state) {
  std::lock_guard lock(mutex_);
  state_ = state;
}

}  // namespace corvane
