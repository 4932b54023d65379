#include <CommonCrypto/CommonDigest.h>

#include "core/sync/digest.h"

namespace corvane {

std::array<std::uint8_t, 20> sha1(std::string_view data) {
  std::array<std::uint8_t, 20> digest{};
  CC_SHA1(data.data(), static_cast<CC_LONG>(data.size()), digest.data());
  return digest;
}

}  // namespace corvane
