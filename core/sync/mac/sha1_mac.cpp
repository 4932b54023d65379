#include <CommonCrypto/CommonDigest.h>

#include "core/sync/digest.h"

namespace corvane {

std::array<std::uint8_t, 20> sha1(std::string_view data) {
  std::array<std::uint8_t, 20> digest{};
  // Current SDKs deprecate CC_SHA1 as unfit for security. Here it only tells
  // whether a directory entry changed since the last upload; nothing trusts it.
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wdeprecated-declarations"
  CC_SHA1(data.data(), static_cast<CC_LONG>(data.size()), digest.data());
#pragma clang diagnostic pop
  return digest;
}

}  // namespace corvane
