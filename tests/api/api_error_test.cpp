#include "core/api/api_error.h"

#include <gtest/gtest.h>

#include <optional>

#include "core/api/http_status.h"

namespace corvane {
namespace {

// Callers retry on exactly these; a wrong answer either hammers a server
// that refused on purpose or gives up on a hiccup.
TEST(APIErrorTest, StatusAndTransience) {
  struct Case {
    APIError error;
    std::optional<int> status;
    bool transient;
  };
  const Case cases[] = {
      {APIError::unauthorized("u"), 401, false},
      {APIError::http(400, "h"), 400, false},
      {APIError::http(407, "h"), 407, false},
      {APIError::http(408, "h"), 408, true},
      {APIError::http(429, "h"), 429, true},
      {APIError::http(499, "h"), 499, false},
      {APIError::http(500, "h"), 500, true},
      {APIError::http(302, "h"), 302, false},
      {APIError::network("n"), std::nullopt, true},
      {APIError::badResponse("b"), std::nullopt, false},
      {APIError::insecureServer("i"), std::nullopt, false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(c.error.status(), c.status) << c.error.what();
    EXPECT_EQ(c.error.isTransient(), c.transient) << c.error.what();
  }
}

TEST(HTTPStatusTextTest, RegisteredPhrasesAndClassFallbacks) {
  struct Case {
    int status;
    const char* text;
  };
  const Case cases[] = {
      {200, "OK"},           {502, "Bad Gateway"},
      {511, "Network Authentication Required"},
      {299, "Success"},        {419, "Client Error"},
      {599, "Server Error"},   {0, "Unknown Status"},
      {700, "Unknown Status"},
  };
  for (const auto& c : cases) EXPECT_EQ(httpStatusText(c.status), c.text) << c.status;
}

}  // namespace
}  // namespace corvane
