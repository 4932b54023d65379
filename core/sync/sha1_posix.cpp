#include <openssl/sha.h>

#include "core/sync/digest.h"

namespace corvane {

std::array<std::uint8_t, 20> sha1(std::string_view data) {
  std::array<std::uint8_t, 20> digest{};
  SHA1(reinterpret_cast<const unsigned char*>(data.data()), data.size(), digest.data());
  return digest;
}

}  // namespace corvane
