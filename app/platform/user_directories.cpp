#include "app/platform/user_directories.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <vector>

namespace corvane::UserDirectories {
namespace fs = std::filesystem;

namespace {

bool nonEmpty(const char* value) { return value != nullptr && value[0] != '\0'; }

}  // namespace

const char* processEnvironment(const char* name) { return std::getenv(name); }

fs::path home(const GetEnv& getenv) {
  if (const char* value = getenv("HOME"); nonEmpty(value)) return value;
  // Launch agents may start without HOME; the user database still knows it.
  const long hint = ::sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buffer(hint > 0 ? static_cast<std::size_t>(hint) : 16384);
  passwd entry{};
  passwd* found = nullptr;
  if (::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 &&
      found != nullptr && nonEmpty(found->pw_dir)) {
    return found->pw_dir;
  }
  return "/";
}

fs::path configDirectory(const GetEnv& getenv) {
  // The XDG rules say a relative value is to be ignored.
  if (const char* value = getenv("XDG_CONFIG_HOME"); nonEmpty(value) && value[0] == '/') {
    return fs::path(value) / "Corvane";
  }
  return home(getenv) / ".config" / "Corvane";
}

}  // namespace corvane::UserDirectories
