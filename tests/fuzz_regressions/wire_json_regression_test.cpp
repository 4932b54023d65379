// Inputs the wire-JSON fuzz target found, each pinned to the invariant it
// broke: a server answer is either a record or a DecodingError, which is all
// the API client catches.
#include <gtest/gtest.h>

#include <string>

#include "core/protocol/wire_json.h"

namespace corvane {
namespace {

TEST(WireJsonFuzzRegression, NumberBeyondDoubleRangeIsADecodingError) {
  // The fuzzer's input: valid JSON syntax whose number overflows a double.
  const std::string found =
      "922331e99972\x17"
      "36853685477sd\"}";
  const std::string answers[] = {found, "1e999", "{\"accepted\":1e999,\"dropped\":0}",
                                 "{\"queued\":-1e400}"};
  for (const auto& text : answers) {
    try {
      decodeJSON<SyncResponse>(text);
      ADD_FAILURE() << "decoded " << text;
    } catch (const DecodingError& e) {
      EXPECT_EQ(std::string(e.what()), "not valid JSON (a number is out of range)") << text;
    }
    EXPECT_THROW(decodeJSON<SelfMessageResponse>(text), DecodingError) << text;
    EXPECT_THROW(decodeJSON<ErrorBody>(text), DecodingError) << text;
  }
}

}  // namespace
}  // namespace corvane
