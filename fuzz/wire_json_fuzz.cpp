// Every record the server sends, decoded from the same bytes. A decoder may
// refuse a text only with DecodingError (the API client catches nothing
// else), and what it accepts must encode and decode back to itself.
#include <cstdint>
#include <string>

#include "core/protocol/wire_json.h"
#include "core/text/unicode.h"
#include "fuzz/fuzz_check.h"

using namespace corvane;
using fuzz::escaped;

namespace {

template <class Record>
void roundTrips(std::string_view text) {
  Record record;
  try {
    record = decodeJSON<Record>(text);
  } catch (const DecodingError& e) {
    // The message is shown to the user and written to logs.
    FUZZ_CHECK(isValidUTF8(e.what()) && *e.what() != '\0', escaped(e.what()));
    return;
  }
  // Encoding replaces ill-formed UTF-8, so a string the decoder let through
  // unrepaired would come back different.
  const std::string encoded = encodeJSON(record);
  FUZZ_CHECK(isValidUTF8(encoded), escaped(encoded));
  Record again;
  try {
    again = decodeJSON<Record>(encoded);
  } catch (const DecodingError& e) {
    FUZZ_CHECK(false, std::string(e.what()) + " decoding " + escaped(encoded));
  }
  FUZZ_CHECK(again == record, escaped(encoded));
  FUZZ_CHECK(encodeJSON(again) == encoded, escaped(encoded));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text = fuzz::asText(data, size);
  roundTrips<AgentConfig>(text);
  roundTrips<SyncResponse>(text);
  roundTrips<OutboxResponse>(text);
  roundTrips<PairResponse>(text);
  roundTrips<SelfMessageResponse>(text);
  roundTrips<ErrorBody>(text);
  return 0;
}
