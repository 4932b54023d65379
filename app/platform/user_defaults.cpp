#include "app/platform/user_defaults.h"

#include <nlohmann/json.hpp>
#include <utility>

#include "app/platform/private_file.h"

namespace corvane {
namespace fs = std::filesystem;

namespace {

nlohmann::json readObject(const fs::path& path) {
  const auto text = PrivateFile::read(path);
  if (!text) return nlohmann::json::object();
  auto j = nlohmann::json::parse(*text, nullptr, /*allow_exceptions=*/false);
  return j.is_object() ? j : nlohmann::json::object();
}

// Reads the object, lets `change` edit it and writes it back.
template <class Change>
bool update(const fs::path& path, Change&& change) {
  auto object = readObject(path);
  change(object);
  // Sorted keys keep the file stable across rewrites; text that isn't UTF-8
  // is kept with U+FFFD rather than losing the whole change.
  return PrivateFile::write(
      path, object.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n");
}

}  // namespace

JsonFileUserDefaults::JsonFileUserDefaults(fs::path path) : path_(std::move(path)) {}

fs::path JsonFileUserDefaults::defaultPath(const UserDirectories::GetEnv& getenv) {
  return UserDirectories::configDirectory(getenv) / fileName;
}

std::optional<std::string> JsonFileUserDefaults::getString(std::string_view key) {
  std::lock_guard lock(mutex_);
  const auto object = readObject(path_);
  const auto it = object.find(key);
  if (it == object.end() || !it->is_string()) return std::nullopt;
  return it->get<std::string>();
}

bool JsonFileUserDefaults::getBool(std::string_view key) {
  std::lock_guard lock(mutex_);
  const auto object = readObject(path_);
  const auto it = object.find(key);
  return it != object.end() && it->is_boolean() && it->get<bool>();
}

bool JsonFileUserDefaults::setString(std::string_view key, std::string_view value) {
  std::lock_guard lock(mutex_);
  return update(path_, [&](nlohmann::json& object) { object[std::string(key)] = value; });
}

bool JsonFileUserDefaults::setBool(std::string_view key, bool value) {
  std::lock_guard lock(mutex_);
  return update(path_, [&](nlohmann::json& object) { object[std::string(key)] = value; });
}

bool JsonFileUserDefaults::remove(std::string_view key) {
  std::lock_guard lock(mutex_);
  return update(path_, [&](nlohmann::json& object) { object.erase(std::string(key)); });
}

}  // namespace corvane
