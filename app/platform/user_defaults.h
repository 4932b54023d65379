// UserDefaults: the user's small settings that outlive a run — the chosen
// database, the server, the device's identity from pairing, the remembered
// Automation answer and the setup wizard's choices. Never the token.
//
// Implementations may be called from any thread. Reads never fail (a value
// that is missing, unreadable or of another type reads as absent or false);
// writes report whether the value was kept and never throw.
#pragma once

#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "app/platform/user_directories.h"

namespace corvane {

// The keys the agent uses.
namespace DefaultsKey {
inline constexpr std::string_view chatDBPath = "chatDBPath";
inline constexpr std::string_view server = "server";
inline constexpr std::string_view deviceId = "deviceId";
inline constexpr std::string_view userName = "userName";
inline constexpr std::string_view automation = "automation";
inline constexpr std::string_view skippedMove = "skippedMove";
inline constexpr std::string_view skippedAutomation = "skippedAutomation";
inline constexpr std::string_view skippedContacts = "skippedContacts";
inline constexpr std::string_view setupCompleted = "setupCompleted";
}  // namespace DefaultsKey

class UserDefaults {
 public:
  UserDefaults() = default;
  UserDefaults(const UserDefaults&) = delete;
  UserDefaults& operator=(const UserDefaults&) = delete;
  virtual ~UserDefaults() = default;

  // The text stored under `key`; absent when there is none or it is not text.
  virtual std::optional<std::string> getString(std::string_view key) = 0;
  // The flag stored under `key`; false when there is none or it is not a flag.
  virtual bool getBool(std::string_view key) = 0;

  // Each replaces whatever `key` held; true when the change was kept.
  virtual bool setString(std::string_view key, std::string_view value) = 0;
  virtual bool setBool(std::string_view key, bool value) = 0;
  virtual bool remove(std::string_view key) = 0;

  // The application's defaults domain on macOS; elsewhere a JsonFileUserDefaults
  // at its default path.
  static std::unique_ptr<UserDefaults> makeDefault();

  // True when makeDefault's settings lie under UserDirectories::configDirectory
  // (see TokenStore::defaultFollowsConfigDirectory); a defaults domain
  // follows no environment.
  static bool defaultFollowsConfigDirectory();
};

// Keeps the settings as one JSON object in a file of mode 0600, rewritten
// atomically on every change. Each call reads the file afresh, so changes
// made by another process are seen; two processes changing it at the same
// moment may lose one of the two changes (the last rename wins). A file that
// isn't a JSON object reads as empty and is replaced by the next change.
class JsonFileUserDefaults final : public UserDefaults {
 public:
  static constexpr const char* fileName = "defaults.json";

  explicit JsonFileUserDefaults(std::filesystem::path path);

  const std::filesystem::path& path() const { return path_; }

  // "defaults.json" beside the device token: UserDirectories::configDirectory.
  static std::filesystem::path defaultPath(const UserDirectories::GetEnv& getenv);

  std::optional<std::string> getString(std::string_view key) override;
  bool getBool(std::string_view key) override;
  bool setString(std::string_view key, std::string_view value) override;
  bool setBool(std::string_view key, bool value) override;
  bool remove(std::string_view key) override;

 private:
  std::filesystem::path path_;
  // Keeps this process's read-modify-write cycles from interleaving.
  std::mutex mutex_;
};

}  // namespace corvane
