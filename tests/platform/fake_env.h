// An environment for UserDirectories lookups that holds only what a test put in it.
#pragma once

#include <map>
#include <string>

#include "app/platform/user_directories.h"

namespace corvane::testing {

inline UserDirectories::GetEnv fakeEnv(std::map<std::string, std::string> vars) {
  return [vars = std::move(vars)](const char* name) -> const char* {
    const auto it = vars.find(name);
    return it == vars.end() ? nullptr : it->second.c_str();
  };
}

}  // namespace corvane::testing
