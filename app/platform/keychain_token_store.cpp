#include "app/platform/keychain_token_store.h"

#include <utility>

#include "core/text/unicode.h"

namespace corvane {

KeychainTokenStore::KeychainTokenStore(std::unique_ptr<Keychain> keychain)
    : keychain_(std::move(keychain)) {}

bool KeychainTokenStore::save(std::string_view key, std::string_view value) {
  // SecItemAdd refuses to overwrite, and there must only ever be one item.
  remove(key);
  const KeychainItem item{std::string(service), std::string(key), std::string(label),
                          KeychainItem::Accessibility::afterFirstUnlock, std::string(value)};
  return keychain_->add(item) == 0;
}

std::optional<std::string> KeychainTokenStore::load(std::string_view key) {
  auto match = keychain_->copyData(std::string(service), std::string(key));
  if (match.status != 0 || !match.data || !isValidUTF8(*match.data)) return std::nullopt;
  return std::move(match.data);
}

void KeychainTokenStore::remove(std::string_view key) {
  keychain_->remove(std::string(service), std::string(key));
}

}  // namespace corvane
