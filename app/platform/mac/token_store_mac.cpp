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

CFOwned<CFStringRef> cfString(const std::string& s) {
  return CFOwned<CFStringRef>(
      CFStringCreateWithBytes(nullptr, reinterpret_cast<const UInt8*>(s.data()),
                              static_cast<CFIndex>(s.size()), kCFStringEncodingUTF8, false));
}

// Class, service and account: what every query starts from.
CFOwned<CFMutableDictionaryRef> itemQuery(const std::string& service, const std::string& account) {
  CFOwned<CFMutableDictionaryRef> query(CFDictionaryCreateMutable(
      nullptr, 0, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks));
  const auto serviceText = cfString(service);
  const auto accountText = cfString(account);
  CFDictionarySetValue(query.get(), kSecClass, kSecClassGenericPassword);
  if (serviceText) CFDictionarySetValue(query.get(), kSecAttrService, serviceText.get());
  if (accountText) CFDictionarySetValue(query.get(), kSecAttrAccount, accountText.get());
  return query;
}

class SecurityKeychain final : public Keychain {
 public:
  int add(const KeychainItem& item) override {
    auto query = itemQuery(item.service, item.account);
    const auto label = cfString(item.label);
    const CFOwned<CFDataRef> data(CFDataCreate(nullptr,
                                               reinterpret_cast<const UInt8*>(item.data.data()),
                                               static_cast<CFIndex>(item.data.size())));
    if (label) CFDictionarySetValue(query.get(), kSecAttrLabel, label.get());
    CFDictionarySetValue(query.get(), kSecAttrAccessible,
                         item.accessible == KeychainItem::Accessibility::afterFirstUnlock
                             ? kSecAttrAccessibleAfterFirstUnlock
                             : kSecAttrAccessibleWhenUnlocked);
    CFDictionarySetValue(query.get(), kSecValueData, data.get());
    return SecItemAdd(query.get(), nullptr);
  }

  Match copyData(const std::string& service, const std::string& account) override {
    auto query = itemQuery(service, account);
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

  int remove(const std::string& service, const std::string& account) override {
    return SecItemDelete(itemQuery(service, account).get());
  }
};

}  // namespace

std::unique_ptr<TokenStore> TokenStore::makeDefault() {
  return std::make_unique<KeychainTokenStore>(std::make_unique<SecurityKeychain>());
}

}  // namespace corvane
