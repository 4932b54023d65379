// KeychainTokenStore: the device token as one generic-password item in the
// user's login Keychain. The item's attributes and what each Keychain status
// means are decided here; the Keychain itself is reached through `Keychain`,
// the Security framework's item calls (mac/) or a stand-in in tests.
//
// Stateless and safe from any thread: the Keychain serialises access to the item.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "app/platform/token_store.h"

namespace corvane {

// A generic-password item as the store adds it.
struct KeychainItem {
  enum class Accessibility { afterFirstUnlock, whenUnlocked };

  std::string service;
  std::string account;
  std::string label;
  Accessibility accessible = Accessibility::afterFirstUnlock;
  std::string data;  // the token's UTF-8 bytes, no terminator, no length prefix
  bool operator==(const KeychainItem&) const = default;
};

// The generic-password calls of the Security framework, one to one. Each
// returns the framework's status, 0 meaning success. Service and account are
// never empty: a query without one of them would match every item of the other.
class Keychain {
 public:
  // What a match query for one item's data brought back.
  struct Match {
    int status = 0;
    // The item's bytes; absent when no result came back or it was not data.
    std::optional<std::string> data;
  };

  Keychain() = default;
  Keychain(const Keychain&) = delete;
  Keychain& operator=(const Keychain&) = delete;
  virtual ~Keychain() = default;

  // SecItemAdd with every attribute of `item` and no result.
  virtual int add(const KeychainItem& item) = 0;
  // SecItemCopyMatching for (service, account), returning data, limit one.
  virtual Match copyData(const std::string& service, const std::string& account) = 0;
  // SecItemDelete for (service, account).
  virtual int remove(const std::string& service, const std::string& account) = 0;
};

class KeychainTokenStore final : public TokenStore {
 public:
  // The product's service, fixed: the application and the headless mode
  // share the item through it.
  static constexpr std::string_view productService = "corvane.mac";
  // Written only when the item is added.
  static constexpr std::string_view label = "Corvane device token";

  // `service` other than the product's keeps a store (a test's) away from
  // the user's token. Empty keys have no item: save fails, load is absent,
  // remove does nothing, and no query without an account reaches `keychain`.
  explicit KeychainTokenStore(std::unique_ptr<Keychain> keychain,
                              std::string service = std::string(productService));

  const std::string& service() const { return service_; }

  // Readable from the first unlock after boot on, so the agent can sync right
  // after login without prompting. Any status other than 0 is false.
  bool save(std::string_view key, std::string_view value) override;
  // Absent for any status other than 0, no data, or bytes that aren't UTF-8.
  std::optional<std::string> load(std::string_view key) override;
  // "Not found" is the normal case and, like any other status, is ignored.
  void remove(std::string_view key) override;

 private:
  std::unique_ptr<Keychain> keychain_;
  std::string service_;
};

}  // namespace corvane
