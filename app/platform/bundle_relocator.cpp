#include "app/platform/bundle_relocator.h"

#include <sys/statvfs.h>
#include <unistd.h>

#include <system_error>

#include "app/platform/app_bundle.h"
#include "app/platform/user_directories.h"

namespace corvane {
namespace fs = std::filesystem;

namespace {

std::string quoted(const fs::path& path) { return "\u201C" + path.string() + "\u201D"; }

std::string sentence(const std::string& what, const std::error_code& ec) {
  return what + ": " + ec.message() + ".";
}

// Symbolic links resolved as far as the path exists; the path as given when
// even that fails.
fs::path resolved(const fs::path& path) {
  std::error_code ec;
  fs::path r = fs::weakly_canonical(path, ec);
  return ec ? path.lexically_normal() : r;
}

bool isInside(const std::string& path, const fs::path& folder) {
  std::string prefix = resolved(folder).string();
  if (prefix.empty() || prefix.back() != '/') prefix += '/';
  return path.size() > prefix.size() && path.compare(0, prefix.size(), prefix) == 0;
}

}  // namespace

BundleRelocator::BundleRelocator(Services services) : services_(std::move(services)) {}

std::unique_ptr<BundleRelocator> BundleRelocator::makeDefault(std::function<void()> terminate) {
  return std::make_unique<BundleRelocator>(Services{
      .bundlePath = AppBundle::runningPath(),
      .home = UserDirectories::home(UserDirectories::processEnvironment),
      .trash = Trash::makeDefault(),
      .terminate = std::move(terminate),
  });
}

std::string BundleRelocator::relaunchScript(std::int64_t pid) {
  return "while /bin/kill -0 " + std::to_string(pid) +
         " 2>/dev/null; do /bin/sleep 0.2; done; /usr/bin/open \"$0\"";
}

bool BundleRelocator::isInApplications() {
  if (!services_.bundlePath) return false;
  const std::string path = resolved(*services_.bundlePath).string();
  // The separator matters: "/Applications-old/Corvane.app" is not inside.
  return isInside(path, services_.systemApplications) ||
         isInside(path, services_.home / "Applications");
}

std::optional<std::string> BundleRelocator::moveToApplications() {
  if (!services_.bundlePath) return "Corvane isn't running from an application bundle.";
  const fs::path source = resolved(*services_.bundlePath);
  std::error_code ec;

  fs::path folder = services_.systemApplications;
  if (!services_.isWritableFolder(folder)) {
    folder = services_.home / "Applications";
    fs::create_directories(folder, ec);
    if (!ec && !fs::is_directory(folder, ec)) ec = std::make_error_code(std::errc::not_a_directory);
    if (ec) return sentence("The folder " + quoted(folder) + " couldn't be created", ec);
  }
  const fs::path destination = folder / bundleName;

  if (fs::exists(fs::symlink_status(destination, ec))) {
    // Trashing the copy that is running would leave nothing to copy from.
    if (fs::equivalent(source, destination, ec)) return "Corvane is already in Applications.";
    if (!services_.trash || !services_.trash->moveToTrash(destination)) {
      fs::remove_all(destination, ec);
      if (ec) return sentence("The older " + quoted(destination) + " couldn't be removed", ec);
    }
  }

  fs::copy(source, destination, fs::copy_options::recursive | fs::copy_options::copy_symlinks,
           ec);
  if (ec) {
    // Half a bundle in Applications would look like an installed copy.
    std::error_code ignored;
    fs::remove_all(destination, ignored);
    return sentence("Corvane couldn't be copied to " + quoted(folder), ec);
  }

  // The new copy works without these; failures are deliberately ignored.
  services_.runAndWait(xattrExecutable, {"-dr", "com.apple.quarantine", destination.string()});
  if (mayRemoveOldCopy(source) && services_.trash) services_.trash->moveToTrash(source);

  relaunch(destination);
  return std::nullopt;
}

bool BundleRelocator::mayRemoveOldCopy(const fs::path& source) {
  // A translocated copy is a read-only view of the download; the system
  // removes it.
  if (source.string().find("/AppTranslocation/") != std::string::npos) return false;
  // A disk image, say. Unknown counts as read-only: the safe answer.
  if (services_.volumeIsReadOnly(source).value_or(true)) return false;
  return services_.isWritableFolder(source.parent_path());
}

void BundleRelocator::relaunch(const fs::path& path) {
  const auto started = services_.startDetached(
      shellExecutable, {"-c", relaunchScript(services_.processId), path.string()});
  // Without the shell nobody would start the new copy: keep running.
  if (started && services_.terminate) services_.terminate();
}

std::optional<std::int64_t> BundleRelocator::runChild(const std::string& executable,
                                                      const std::vector<std::string>& args) {
  return ChildProcess::run(executable, args);
}

std::optional<std::int64_t> BundleRelocator::startChild(const std::string& executable,
                                                        const std::vector<std::string>& args) {
  return ChildProcess::start(executable, args);
}

std::optional<bool> BundleRelocator::volumeIsReadOnlyByStatvfs(const fs::path& path) {
  struct statvfs info {};
  if (::statvfs(path.c_str(), &info) != 0) return std::nullopt;
  return (info.f_flag & ST_RDONLY) != 0;
}

bool BundleRelocator::isWritableByUser(const fs::path& folder) {
  return ::access(folder.c_str(), W_OK) == 0;
}

}  // namespace corvane
