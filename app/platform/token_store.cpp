#include "app/platform/token_store.h"

#include <utility>

#include "app/platform/private_file.h"
#include "core/text/unicode.h"

namespace corvane {
namespace fs = std::filesystem;

FileTokenStore::FileTokenStore(fs::path directory) : directory_(std::move(directory)) {}

fs::path FileTokenStore::defaultDirectory(const UserDirectories::GetEnv& getenv) {
  return UserDirectories::configDirectory(getenv);
}

std::optional<fs::path> FileTokenStore::fileFor(std::string_view key) const {
  // A key must not reach outside the directory.
  if (key.empty() || key == "." || key == ".." || key.find('/') != std::string_view::npos ||
      key.find('\0') != std::string_view::npos) {
    return std::nullopt;
  }
  return directory_ / fs::path(std::string(key));
}

bool FileTokenStore::save(std::string_view key, std::string_view value) {
  const auto file = fileFor(key);
  if (!file) return false;
  // Removing first keeps the Keychain's behaviour: a failed save leaves no
  // stale token that a later start would take for the new one.
  remove(key);
  return PrivateFile::write(*file, value);
}

std::optional<std::string> FileTokenStore::load(std::string_view key) {
  const auto file = fileFor(key);
  if (!file) return std::nullopt;
  auto bytes = PrivateFile::read(*file);
  if (!bytes || !isValidUTF8(*bytes)) return std::nullopt;
  return bytes;
}

void FileTokenStore::remove(std::string_view key) {
  if (const auto file = fileFor(key)) PrivateFile::remove(*file);
}

}  // namespace corvane
