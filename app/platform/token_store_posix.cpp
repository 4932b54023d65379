// Systems without a Keychain keep the token in a private file.
#include "app/platform/token_store.h"

namespace corvane {

std::unique_ptr<TokenStore> TokenStore::makeDefault() {
  return std::make_unique<FileTokenStore>(
      FileTokenStore::defaultDirectory(UserDirectories::processEnvironment));
}

bool TokenStore::defaultFollowsConfigDirectory() { return true; }

}  // namespace corvane
