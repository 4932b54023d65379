// UserDirectories: where this user's files live. Every lookup goes through
// an environment function handed in, so tests can point the agent at a
// temporary home. Pure apart from the user-database fallback; safe to call
// from any thread.
#pragma once

#include <filesystem>
#include <functional>

namespace corvane::UserDirectories {

// Looks up an environment variable the way getenv does (null when unset);
// the same shape FileStateStore::defaultDirectory takes.
using GetEnv = std::function<const char*(const char*)>;

// The real process environment.
const char* processEnvironment(const char* name);

// $HOME when it is set and not empty, else the user database's home, else "/".
std::filesystem::path home(const GetEnv& getenv);

// Where the agent keeps its credential and settings outside macOS:
// "$XDG_CONFIG_HOME/Corvane" when that variable is an absolute path, else
// "<home>/.config/Corvane".
std::filesystem::path configDirectory(const GetEnv& getenv);

}  // namespace corvane::UserDirectories
