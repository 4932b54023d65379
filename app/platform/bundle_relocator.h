// BundleRelocator: the Relocator over the file system. Every fact about the
// running process and the system (where the bundle is, which folders are
// writable, whether a volume is read-only) and every action beyond plain
// file work (the Trash, child processes, ending the application) is handed
// in, so that tests run the whole move in temporary folders.
//
// Main thread; never throws.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "app/platform/child_process.h"
#include "app/platform/relocator.h"
#include "app/platform/trash.h"

namespace corvane {

class BundleRelocator final : public Relocator {
 public:
  // Runs or starts a program with its arguments: ChildProcess::run (exit
  // status) and ChildProcess::start (process id). Absent: not started.
  using Spawn = std::function<std::optional<std::int64_t>(const std::string& executable,
                                                          const std::vector<std::string>& args)>;

  struct Services {
    std::optional<std::filesystem::path> bundlePath;  // absent: not a bundle
    std::filesystem::path home;
    std::shared_ptr<Trash> trash;
    std::function<void()> terminate;  // ends the application, soon
    std::filesystem::path systemApplications = "/Applications";
    Spawn runAndWait = runChild;
    Spawn startDetached = startChild;
    std::int64_t processId = ChildProcess::currentProcessId();
    // Absent when the volume can't be asked.
    std::function<std::optional<bool>(const std::filesystem::path&)> volumeIsReadOnly =
        volumeIsReadOnlyByStatvfs;
    std::function<bool(const std::filesystem::path&)> isWritableFolder = isWritableByUser;
  };

  static constexpr const char* bundleName = "Corvane.app";
  static constexpr const char* xattrExecutable = "/usr/bin/xattr";
  static constexpr const char* shellExecutable = "/bin/sh";

  explicit BundleRelocator(Services services);

  // The real process: AppBundle's path, the user's home, this system's Trash.
  static std::unique_ptr<BundleRelocator> makeDefault(std::function<void()> terminate);

  // The shell script that waits for process `pid` to end, then opens the
  // bundle it receives as $0.
  static std::string relaunchScript(std::int64_t pid);

  std::optional<std::filesystem::path> bundlePath() override { return services_.bundlePath; }
  bool isInApplications() override;
  // Errors are finished sentences naming the file operation that failed.
  std::optional<std::string> moveToApplications() override;
  void relaunch(const std::filesystem::path& path) override;

  static std::optional<std::int64_t> runChild(const std::string& executable,
                                              const std::vector<std::string>& args);
  static std::optional<std::int64_t> startChild(const std::string& executable,
                                                const std::vector<std::string>& args);
  static std::optional<bool> volumeIsReadOnlyByStatvfs(const std::filesystem::path& path);
  static bool isWritableByUser(const std::filesystem::path& folder);

 private:
  // Whether the copy that was running may go to the Trash after the move.
  bool mayRemoveOldCopy(const std::filesystem::path& source);

  Services services_;
};

}  // namespace corvane
