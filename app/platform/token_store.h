// TokenStore: where the device token — the agent's only credential — is kept
// between runs. One item per account key; every caller uses `deviceTokenKey`.
// The application model loads it at start-up, saves it after pairing and
// removes it on disconnect; the headless mode uses the same store and key, so
// a device paired in one mode is paired in the other.
//
// Implementations hold no state of their own and may be called from any
// thread. None of them throws, logs or puts the token into any text: every
// failure folds into absent (load) or false (save).
#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "app/platform/user_directories.h"

namespace corvane {

class TokenStore {
 public:
  // The account key every caller passes.
  static constexpr std::string_view deviceTokenKey = "device-token";

  TokenStore() = default;
  TokenStore(const TokenStore&) = delete;
  TokenStore& operator=(const TokenStore&) = delete;
  virtual ~TokenStore() = default;

  // Removes the old item for `key`, then stores `value` as-is (its form and
  // length are not checked). True only when the new item is stored; a failed
  // save leaves no item at all, so the next start finds the device unpaired.
  virtual bool save(std::string_view key, std::string_view value) = 0;

  // The stored token, or absent when there is none, it can't be read or its
  // bytes are not UTF-8. Absent means "not paired".
  virtual std::optional<std::string> load(std::string_view key) = 0;

  // Deletes the item; silent when there is none or deleting fails.
  virtual void remove(std::string_view key) = 0;

  // This system's store: the login Keychain on macOS, a FileTokenStore in
  // the default directory elsewhere.
  static std::unique_ptr<TokenStore> makeDefault();

  // True when makeDefault's store lies under UserDirectories::configDirectory,
  // so that a process given an XDG_CONFIG_HOME of its own (a test's child)
  // can't reach the user's token. The Keychain follows no environment.
  static bool defaultFollowsConfigDirectory();
};

// Keeps each key's token in a file of that name, mode 0600, in a directory
// of mode 0700, replaced atomically. Keys that aren't plain file names (empty,
// ".", "..", or containing "/") have no item: save fails, load is absent.
class FileTokenStore final : public TokenStore {
 public:
  explicit FileTokenStore(std::filesystem::path directory);

  const std::filesystem::path& directory() const { return directory_; }

  // UserDirectories::configDirectory: "$XDG_CONFIG_HOME/Corvane" or
  // "~/.config/Corvane".
  static std::filesystem::path defaultDirectory(const UserDirectories::GetEnv& getenv);

  bool save(std::string_view key, std::string_view value) override;
  std::optional<std::string> load(std::string_view key) override;
  void remove(std::string_view key) override;

 private:
  std::optional<std::filesystem::path> fileFor(std::string_view key) const;

  std::filesystem::path directory_;
};

}  // namespace corvane
