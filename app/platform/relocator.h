// Relocator: where the running application bundle lies and moving it into
// an Applications folder, where macOS remembers the permissions granted to
// it. Outside a bundle (a plain executable, as on Linux) there is nothing to
// move.
//
// Calls are made on the main thread; they never throw.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace corvane {

class Relocator {
 public:
  Relocator() = default;
  Relocator(const Relocator&) = delete;
  Relocator& operator=(const Relocator&) = delete;
  virtual ~Relocator() = default;

  // The running bundle ("….app"), or absent when the application does not
  // run from a bundle.
  virtual std::optional<std::filesystem::path> bundlePath() = 0;

  // The bundle, symbolic links resolved, lies under "/Applications/" or under
  // the home directory's "Applications/".
  virtual bool isInApplications() = 0;

  // Copies the bundle into Applications and relaunches it from there, which
  // ends this process. Returns only on failure, with the error's text (the
  // setup flow wraps it in "Couldn't move Corvane: …").
  virtual std::optional<std::string> moveToApplications() = 0;

  // Starts the bundle at `path` once this process has exited, then ends this
  // process. Returns when the relaunch couldn't be arranged.
  virtual void relaunch(const std::filesystem::path& path) = 0;
};

}  // namespace corvane
