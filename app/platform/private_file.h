// PrivateFile: small files only this user may read — the device token and the
// user defaults outside macOS — replaced atomically. Failures are reported by
// the result alone, never thrown or logged, so a secret's path or content can
// never end up in an error text.
//
// Safe to call from any thread. Writers of the same file never see each
// other's half-written bytes: each writes its own temporary file and the last
// rename wins.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace corvane::PrivateFile {

// The file's bytes; absent when it is missing or can't be read.
std::optional<std::string> read(const std::filesystem::path& path);

// Creates the parent directory if needed (0700, missing ancestors too) and
// makes it 0700, writes `bytes` to a fresh 0600 temporary file beside `path`,
// flushes it to disk, renames it over `path` and flushes the directory.
// False when any step before the rename fails: `path` is then as it was and no
// temporary file is left.
bool write(const std::filesystem::path& path, std::string_view bytes);

// Deletes the file. True when no file remains, including when there was none.
bool remove(const std::filesystem::path& path);

}  // namespace corvane::PrivateFile
