// StateStore: where AgentState lives between cycles. A cycle loads it at its
// start and saves it at each commit point. Implementations may be called from
// any thread; load never fails (a store with nothing usable gives the default
// state), save throws when the state could not be kept.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <mutex>
#include <optional>

#include "core/sync/agent_state.h"

namespace corvane {

class StateStore {
 public:
  StateStore() = default;
  StateStore(const StateStore&) = delete;
  StateStore& operator=(const StateStore&) = delete;
  virtual ~StateStore() = default;

  // The stored state, or the default state when there is none or it can't
  // be read. Never throws.
  virtual AgentState load() = 0;

  // Replaces the stored state. Throws std::system_error (its what() names the
  // file and the cause) when that fails; the previous state is then intact.
  virtual void save(const AgentState& state) = 0;
};

// Keeps the state as "state.json" in a directory, replaced atomically on each
// save: after a crash at any moment the file holds either the old or the new
// state. Holds no memory state; two processes sharing a directory each write
// their own temporary file and the last rename wins.
class FileStateStore final : public StateStore {
 public:
  // Looks up an environment variable the way getenv does (null when unset).
  using GetEnv = std::function<const char*(const char*)>;
  // How a platform lays out per-user application data.
  enum class DataLayout { macOS, xdg };

  static constexpr const char* fileName = "state.json";

  explicit FileStateStore(std::filesystem::path directory);

  const std::filesystem::path& directory() const { return directory_; }
  // The state file itself.
  const std::filesystem::path& path() const { return path_; }

  // The agent's home on this machine, from the real environment.
  static std::filesystem::path defaultDirectory();
  // "$HOME/Library/Application Support/Corvane" for macOS; for xdg
  // "$XDG_DATA_HOME/Corvane" when that is an absolute path, else
  // "$HOME/.local/share/Corvane". An unset HOME falls back to the user
  // database.
  static std::filesystem::path defaultDirectory(DataLayout layout, const GetEnv& getenv);

  // Creates the directory (0700, with missing parents) if needed and makes it
  // 0700 however it came to exist. Throws std::system_error on failure.
  void prepareDirectory() const;

  // A missing, unreadable or corrupt file gives the default state; a corrupt
  // file stays in place until the next save replaces it. A file this store
  // read or wrote last, still in place, is not parsed again.
  AgentState load() override;

  // prepareDirectory(), then writes "state.json.<pid>.tmp" (0600) and flushes
  // it to disk, renames it over "state.json" and flushes the directory. No
  // temporary file is left behind. Nothing is written when the file this
  // store read or wrote last is in place and holds `state` already.
  void save(const AgentState& state) override;

  // Device, inode, size and modification time of a state file.
  struct FileStamp {
    std::uint64_t device = 0, inode = 0;
    std::int64_t size = 0, seconds = 0, nanoseconds = 0;
    bool operator==(const FileStamp&) const = default;
  };

 private:
  struct Known {
    FileStamp stamp;
    AgentState state;
  };
  std::filesystem::path directory_;
  std::filesystem::path path_;
  std::mutex mutex_;
  std::optional<Known> known_;  // the state of the file last read or written
};

// Keeps the state in memory, for tests and previews. Every access takes the
// store's lock, so threads always see whole values.
class MemoryStateStore final : public StateStore {
 public:
  explicit MemoryStateStore(AgentState initial = {});

  AgentState state() const;
  AgentState load() override;
  void save(const AgentState& state) override;

 private:
  mutable std::mutex mutex_;
  AgentState state_;
};

}  // namespace corvane
