// The login Keychain behind KeychainTokenStore: the Security framework's C
// item calls, nothing decided here.
#include <Security/Security.h>

#include <memory>
#include <type_traits>

#include "app/platform/keychain_token_store.h"

namespace corvane {
namespace {

struct ReleaseCF {
  void operator()(CFTypeRef object) const {
    if (object != nullptr) CFRelease(object);
  }
};
template <class T>
using CFOwned = std::unique_ptr<std::remove_pointer_t<T>, ReleaseCF>;

// Null for bytes that aren't UTF-8.
CFOwned<CFStringRef> cfString(const std::string& s) {
  return CFOwned<CFStringRef>(
      CFStringCreateWithBytes(nullptr, reinterpret_cast<const UInt8*>(s.data()),
                              static_cast<CFIndex>(s.size()), kCFStringEncodingUTF8, false));
}

// Class, service and account: what every query starts from. Null unless
// both names are non-empty text: a query without one of them matches every
// item of the other, and SecItemDelete would remove them all.
CFOwned<CFMutableDictionaryRef> itemQuery(const std::string& service, const std::string& account) {
  const auto serviceText = cfString(service);
  const auto accountText = cfString(account);
  if (service.empty() || account.empty() || !serviceText || !accountText) return nullptr;
  CFOwned<CFMutableDictionaryRef> query(CFDictionaryCreateMutable(
      nullptr, 0, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks));
  if (!query) return nullptr;
  CFDictionarySetValue(query.get(), kSecClass, kSecClassGenericPassword);
  CFDictionarySetValue(query.get(), kSecAttrService, serviceText.get());
  CFDictionarySetValue(query.get(), kSecAttrAccount, accountText.get());
  return query;
}

class SecurityKeychain final : public Keychain {
 public:
  // https://developer.apple.com/documentation/security/secitemadd(_:_:)
  int add(const KeychainItem& item) override {
    auto query = itemQuery(item.service, item.account);
    const auto label = cfString(item.label);
    const CFOwned<CFDataRef> data(CFDataCreate(nullptr,
                                               reinterpret_cast<const UInt8*>(item.data.data()),
                                               static_cast<CFIndex>(item.data.size())));
    if (!query || !data) return errSecParam;
    if (label) CFDictionarySetValue(query.get(), kSecAttrLabel, label.get());
    CFDictionarySetValue(query.get(), kSecAttrAccessible,
                         item.accessible == KeychainItem::Accessibility::afterFirstUnlock
                             ? kSecAttrAccessibleAfterFirstUnlock
                             : kSecAttrAccessibleWhenUnlocked);
    CFDictionarySetValue(query.get(), kSecValueData, data.get());
    return SecItemAdd(query.get(), nullptr);
  }

  // https://developer.apple.com/documentation/security/secitemcopymatching(_:_:)
  Match copyData(const std::string& service, const std::string& account) override {
    auto query = itemQuery(service, account);
    if (!query) return {errSecParam, std::nullopt};
    CFDictionarySetValue(query.get(), kSecReturnData, kCFBooleanTrue);
    CFDictionarySetValue(query.get(), kSecMatchLimit, kSecMatchLimitOne);
    CFTypeRef result = nullptr;
    const OSStatus status = SecItemCopyMatching(query.get(), &result);
    const CFOwned<CFTypeRef> owned(result);
    if (result == nullptr || CFGetTypeID(result) != CFDataGetTypeID())
      return {status, std::nullopt};
    const auto data = static_cast<CFDataRef>(result);
    const UInt8* bytes = CFDataGetBytePtr(data);
    return {status, std::string(bytes ? reinterpret_cast<const char*>(bytes) : "",
                                static_cast<std::size_t>(CFDataGetLength(data)))};
  }

  // https://developer.apple.com/documentation/security/secitemdelete(_:)
  // Deletes every item the query matches, hence never a partial query.
  int remove(const std::string& service, const std::string& account) override {
    const auto query = itemQuery(service, account);
    return query ? SecItemDelete(query.get()) : errSecParam;
  }
};

}  // namespace

std::unique_ptr<TokenStore> TokenStore::makeDefault() {
  return std::make_unique<KeychainTokenStore>(std::make_unique<SecurityKeychain>());
}

bool TokenStore::defaultFollowsConfigDirectory() { return false; }

}  // namespace corvane
