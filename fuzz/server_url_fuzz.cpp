// Server addresses come from the command line, the user and connect links
// that any web page can hand out. The first byte of an input is the length of
// a code for a generated link, the rest its server; the whole input is also
// read as an address and as a link.
#include <cstdint>
#include <string>

#include "core/protocol/connect_link.h"
#include "core/protocol/server_url.h"
#include "core/text/unicode.h"
#include "fuzz/fuzz_check.h"

using namespace corvane;
using fuzz::escaped;

namespace {

void checkValidated(std::string_view text) {
  const auto url = ServerURL::validate(text);
  if (!url) return;
  const std::string detail = escaped(text) + " gave " + escaped(*url);
  // The normal form is a fixed point: stored and read again, it stays itself.
  FUZZ_CHECK(ServerURL::validate(*url) == url, detail);
  const bool https = url->starts_with("https://");
  FUZZ_CHECK(https || url->starts_with("http://"), detail);
  const std::string_view rest = std::string_view(*url).substr(https ? 8 : 7);
  FUZZ_CHECK(rest.find_first_of("/?#@") == std::string_view::npos && !rest.empty(), detail);
  if (ServerURL::isTrusted(*url)) FUZZ_CHECK(https, detail);
}

// 4 to 16 printable ASCII characters: a code any link must carry through.
bool isPlainCode(std::string_view code) {
  if (code.size() < 4 || code.size() > 16) return false;
  for (const char c : code) {
    if (c <= ' ' || c > '~') return false;
  }
  return true;
}

void checkLink(std::string_view text) {
  const auto link = ConnectLink::parse(text);
  if (!link) return;
  const std::string detail = escaped(text) + " gave code " + escaped(link->code) + " server " +
                             (link->server ? escaped(*link->server) : "absent");
  FUZZ_CHECK(!link->code.empty() && trimWhitespace(link->code) == link->code, detail);
  FUZZ_CHECK(prefixGraphemes(link->code, 3) != link->code, detail);
  FUZZ_CHECK(prefixGraphemes(link->code, 16) == link->code, detail);
  if (link->server) FUZZ_CHECK(ServerURL::validate(*link->server) == link->server, detail);
  // A link made from what was read reads the same.
  const std::string again = ConnectLink::make(link->code, link->server.value_or(""));
  FUZZ_CHECK(ConnectLink::parse(again) == link, detail + " remade as " + escaped(again));
}

void checkMadeLink(std::string_view code, std::string_view server) {
  const std::string text = ConnectLink::make(code, server);
  const auto link = ConnectLink::parse(text);
  const std::string detail = escaped(code) + ", " + escaped(server) + " made " + escaped(text);
  if (isPlainCode(code)) FUZZ_CHECK(link.has_value(), detail);
  if (!link) return;
  FUZZ_CHECK(link->code == trimWhitespace(code), detail);
  FUZZ_CHECK(link->server == ServerURL::validate(server), detail);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text = fuzz::asText(data, size);
  checkValidated(text);
  checkLink(text);
  const auto [code, server] = fuzz::splitInput(data, size);
  checkValidated(server);
  checkMadeLink(code, server);
  return 0;
}
