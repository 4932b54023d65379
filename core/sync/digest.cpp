#include "core/sync/digest.h"

namespace corvane {

std::string base64url(const std::uint8_t* data, std::size_t size) {
  static constexpr char kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
  std::string out;
  out.reserve((size + 2) / 3 * 4);
  for (std::size_t i = 0; i < size; i += 3) {
    const std::uint32_t chunk = (std::uint32_t{data[i]} << 16) |
                                (i + 1 < size ? std::uint32_t{data[i + 1]} << 8 : 0) |
                                (i + 2 < size ? std::uint32_t{data[i + 2]} : 0);
    const std::size_t chars = size - i >= 3 ? 4 : size - i + 1;
    for (std::size_t k = 0; k < chars; ++k) out += kAlphabet[(chunk >> (18 - 6 * k)) & 0x3F];
  }
  return out;
}

}  // namespace corvane
