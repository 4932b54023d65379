// Trash: moving a file or folder where the user can still get it back. The
// file manager's trash on macOS (mac/); elsewhere the freedesktop.org Trash
// of the home directory, which desktop file managers show and empty.
//
// Main thread (the relocator's caller); never throws.
#pragma once

#include <ctime>
#include <filesystem>
#include <functional>
#include <memory>

#include "app/platform/user_directories.h"

namespace corvane {

class Trash {
 public:
  Trash() = default;
  Trash(const Trash&) = delete;
  Trash& operator=(const Trash&) = delete;
  virtual ~Trash() = default;

  // Moves `path` (a symbolic link itself, not what it points to) into the
  // Trash. False when it is still where it was.
  virtual bool moveToTrash(const std::filesystem::path& path) = 0;

  // This system's Trash.
  static std::unique_ptr<Trash> makeDefault();
};

// The home Trash that desktop file managers share: the item goes to
// "files/<name>" and "info/<name>.trashinfo" records its original absolute
// path (percent-encoded) and the deletion time (local time). Names already
// taken get a number ("Corvane.2.app"). Only items on the Trash's own file
// system can go in: they are renamed, never copied.
class FreedesktopTrash final : public Trash {
 public:
  using Clock = std::function<std::time_t()>;

  explicit FreedesktopTrash(std::filesystem::path trashDirectory, Clock clock = defaultClock);

  const std::filesystem::path& directory() const { return directory_; }

  // "$XDG_DATA_HOME/Trash" when that is an absolute path, else
  // "<home>/.local/share/Trash".
  static std::filesystem::path defaultDirectory(const UserDirectories::GetEnv& getenv);

  // Percent-encodes everything in `path` but unreserved characters and "/",
  // byte by byte, as a trash info file's "Path=" value.
  static std::string encodePath(const std::string& path);

  bool moveToTrash(const std::filesystem::path& path) override;

 private:
  static std::time_t defaultClock() { return std::time(nullptr); }

  std::filesystem::path directory_;
  Clock clock_;
};

}  // namespace corvane
