#include "app/platform/private_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <vector>

namespace corvane::PrivateFile {
namespace fs = std::filesystem;

namespace {

// Makes `dir` and whatever ancestors are missing, each 0700 whatever the
// umask says. Existing ancestors keep the mode the user gave them.
bool makeDirectories(const fs::path& dir) {
  std::vector<fs::path> missing;
  for (fs::path p = dir; !p.empty() && p != p.parent_path(); p = p.parent_path()) {
    struct stat st {};
    if (::stat(p.c_str(), &st) == 0) {
      if (!S_ISDIR(st.st_mode)) return false;
      break;
    }
    if (errno != ENOENT) return false;
    missing.push_back(p);
  }
  for (auto it = missing.rbegin(); it != missing.rend(); ++it) {
    if (::mkdir(it->c_str(), 0700) != 0 && errno != EEXIST) return false;
  }
  // Ours alone, also when someone created it more open than that.
  return ::chmod(dir.c_str(), 0700) == 0;
}

// fsync on macOS stops at the drive's cache; F_FULLFSYNC reaches the medium.
bool flushToDisk(int fd) {
#ifdef F_FULLFSYNC
  if (::fcntl(fd, F_FULLFSYNC) == 0) return true;
#endif
  int rc;
  do {
    rc = ::fsync(fd);
  } while (rc != 0 && errno == EINTR);
  return rc == 0;
}

bool writeAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t n = ::write(fd, bytes.data(), bytes.size());
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    bytes.remove_prefix(static_cast<std::size_t>(n));
  }
  return true;
}

}  // namespace

std::optional<std::string> read(const fs::path& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  std::string bytes;
  char buffer[16 * 1024];
  for (;;) {
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n == 0) break;
    if (n < 0) {
      if (errno == EINTR) continue;
      ::close(fd);
      return std::nullopt;
    }
    bytes.append(buffer, static_cast<std::size_t>(n));
  }
  ::close(fd);
  return bytes;
}

bool write(const fs::path& path, std::string_view bytes) {
  const fs::path dir = path.has_parent_path() ? path.parent_path() : fs::path(".");
  if (!makeDirectories(dir)) return false;

  // mkostemp creates the file exclusively with mode 0600, so nobody else can
  // have it open and a planted symlink is never followed.
  std::string pattern = path.string() + ".XXXXXX";
  const int fd = ::mkostemp(pattern.data(), O_CLOEXEC);
  if (fd < 0) return false;
  bool ok = ::fchmod(fd, 0600) == 0 && writeAll(fd, bytes) && flushToDisk(fd);
  // close is never retried: the descriptor is gone even when it reports EINTR.
  ok = ::close(fd) == 0 && ok;
  if (ok) ok = ::rename(pattern.c_str(), path.c_str()) == 0;
  if (!ok) {
    ::unlink(pattern.c_str());
    return false;
  }
  // The new file is in place; a directory that can't be synced only makes the
  // rename less durable across a power cut, so it doesn't fail the write.
  if (const int dirFd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); dirFd >= 0) {
    flushToDisk(dirFd);
    ::close(dirFd);
  }
  return true;
}

bool remove(const fs::path& path) { return ::unlink(path.c_str()) == 0 || errno == ENOENT; }

}  // namespace corvane::PrivateFile
