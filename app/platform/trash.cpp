#include "app/platform/trash.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <system_error>

namespace corvane {
namespace fs = std::filesystem;

namespace {

bool writeAll(int fd, const std::string& text) {
  std::size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<std::size_t>(n);
  }
  return true;
}

std::string localDate(std::time_t when) {
  std::tm parts{};
  ::localtime_r(&when, &parts);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts);
  return text;
}

// "Corvane.app" → "Corvane.app", "Corvane.2.app", "Corvane.3.app", …
std::string candidateName(const fs::path& original, int attempt) {
  if (attempt == 1) return original.filename().string();
  const fs::path name = original.filename();
  return name.stem().string() + "." + std::to_string(attempt) + name.extension().string();
}

}  // namespace

FreedesktopTrash::FreedesktopTrash(fs::path trashDirectory, Clock clock)
    : directory_(std::move(trashDirectory)), clock_(std::move(clock)) {}

fs::path FreedesktopTrash::defaultDirectory(const UserDirectories::GetEnv& getenv) {
  // The XDG rules say a relative value is to be ignored.
  if (const char* value = getenv("XDG_DATA_HOME"); value != nullptr && value[0] == '/') {
    return fs::path(value) / "Trash";
  }
  return UserDirectories::home(getenv) / ".local" / "share" / "Trash";
}

std::string FreedesktopTrash::encodePath(const std::string& path) {
  static constexpr char hex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(path.size());
  for (const unsigned char c : path) {
    const bool plain = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
                       c == '-' || c == '_' || c == '.' || c == '~' || c == '/';
    if (plain) {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += hex[c >> 4];
      out += hex[c & 0xF];
    }
  }
  return out;
}

bool FreedesktopTrash::moveToTrash(const fs::path& path) {
  std::error_code ec;
  const fs::path original = fs::absolute(path, ec).lexically_normal();
  if (ec || original.filename().empty() || !fs::exists(fs::symlink_status(original, ec))) {
    return false;
  }
  const fs::path files = directory_ / "files";
  const fs::path info = directory_ / "info";
  fs::create_directories(directory_.parent_path(), ec);
  for (const auto& dir : {directory_, files, info}) {
    // Only the user may look at what they threw away.
    if (::mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) return false;
    if (!fs::is_directory(dir, ec)) return false;
  }

  const std::string record = "[Trash Info]\nPath=" + encodePath(original.string()) +
                             "\nDeletionDate=" + localDate(clock_()) + "\n";
  for (int attempt = 1; attempt < 10000; ++attempt) {
    const std::string name = candidateName(original, attempt);
    const fs::path infoFile = info / (name + ".trashinfo");
    // Creating the info file exclusively is what claims the name: another
    // program trashing at the same time picks a different one.
    const int fd = ::open(infoFile.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0) {
      if (errno == EEXIST) continue;
      return false;
    }
    const bool written = writeAll(fd, record);
    ::close(fd);
    if (!written) {
      fs::remove(infoFile, ec);
      return false;
    }
    // A leftover item without its info file still holds the name.
    const fs::path target = files / name;
    if (fs::exists(fs::symlink_status(target, ec))) {
      fs::remove(infoFile, ec);
      continue;
    }
    if (::rename(original.c_str(), target.c_str()) == 0) return true;
    // Another file system (EXDEV) or no permission: it stays where it is.
    fs::remove(infoFile, ec);
    return false;
  }
  return false;
}

}  // namespace corvane
