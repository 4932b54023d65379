// Where the agent keeps its state by default, per platform.
#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "core/sync/state_store.h"

namespace corvane {
namespace fs = std::filesystem;

namespace {

constexpr FileStateStore::DataLayout hostLayout() {
#ifdef __APPLE__
  return FileStateStore::DataLayout::macOS;
#else
  return FileStateStore::DataLayout::xdg;
#endif
}

bool isSet(const char* value) { return value != nullptr && *value != '\0'; }

// A daemon started without HOME still has an entry in the user database.
fs::path homeDirectory(const FileStateStore::GetEnv& getenv) {
  if (const char* home = getenv("HOME"); isSet(home)) return home;
  long size = ::sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buf(size > 0 ? static_cast<std::size_t>(size) : 16384);
  passwd entry{};
  passwd* found = nullptr;
  if (::getpwuid_r(::getuid(), &entry, buf.data(), buf.size(), &found) == 0 && found != nullptr &&
      isSet(found->pw_dir)) {
    return found->pw_dir;
  }
  return "/";
}

}  // namespace

fs::path FileStateStore::defaultDirectory() {
  return defaultDirectory(hostLayout(), [](const char* name) { return std::getenv(name); });
}

fs::path FileStateStore::defaultDirectory(DataLayout layout, const GetEnv& getenv) {
  if (layout == DataLayout::macOS) {
    return homeDirectory(getenv) / "Library" / "Application Support" / "Corvane";
  }
  // The XDG rules ignore a relative XDG_DATA_HOME.
  if (const char* data = getenv("XDG_DATA_HOME"); isSet(data) && data[0] == '/') {
    return fs::path(data) / "Corvane";
  }
  return homeDirectory(getenv) / ".local" / "share" / "Corvane";
}

}  // namespace corvane
