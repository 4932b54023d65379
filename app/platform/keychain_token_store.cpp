#include "app/platform/keychain_token_store.h"

#include <utility>

#include "core/text/unicode.h"

namespace corvane {

KeychainTokenStore::KeychainTokenStore(std::unique_ptr<Keychain> keychain, std::string service)
    : keychain_(std::move(keychain)), service_(std::move(service)) {}

bool KeychainTokenStore::save(std::string_view key, std::string_view value) {
  if (key.empty() || service_.empty()) return false;
  // SecItemAdd refuses to overwrite, and there must only ever be one item.
  remove(key);
  const KeychainItem item{service_, std::string(key), std::string(label),
                          KeychainItem::Accessibility::afterFirstUnlock, std::string(value)};
  return keychain_->add(item) == 0;
}

std::optional<std::string> KeychainTokenStore::load(std::string_view key) {
  if (key.empty() || service_.empty()) return std::nullopt;
  auto match = keychain_->copyData(service_, std::string(key));
  if (match.status != 0 || !match.data || !isValidUTF8(*match.data)) return std::nullopt;
  return std::move(match.data);
}

void KeychainTokenStore::remove(std::string_view key) {
  // A delete query without an account would match every item of the service.
  if (key.empty() || service_.empty()) return;
  keychain_->remove(service_, std::string(key));
}

}  // namespace corvane
