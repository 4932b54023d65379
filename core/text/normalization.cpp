#include "core/text/normalization.h"

#include <utf8proc.h>

#include <cstdlib>

#include "core/text/unicode.h"

namespace corvane {

std::string toNFC(std::string_view s) {
  const std::string valid = isValidUTF8(s) ? std::string(s) : repairUTF8(s);
  utf8proc_uint8_t* mapped = nullptr;
  const utf8proc_ssize_t length =
      utf8proc_map(reinterpret_cast<const utf8proc_uint8_t*>(valid.data()),
                   static_cast<utf8proc_ssize_t>(valid.size()), &mapped,
                   static_cast<utf8proc_option_t>(UTF8PROC_STABLE | UTF8PROC_COMPOSE));
  // Only allocation failure remains possible here; the unnormalised text is
  // a better answer than none.
  if (length < 0) return valid;
  std::string out(reinterpret_cast<const char*>(mapped), static_cast<std::size_t>(length));
  std::free(mapped);
  return out;
}

}  // namespace corvane
