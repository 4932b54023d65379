// Connect links, "corvane://connect?code=ABC123&server=https%3A%2F%2F...",
// which the website hands out so that pairing needs no typing. A plain value;
// safe to share between threads.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace corvane {

struct ConnectLink {
  std::string code{};
  // Already validated (ServerURL::validate); absent when the link named none
  // or named one the agent would refuse.
  std::optional<std::string> server{};
  bool operator==(const ConnectLink&) const = default;

  // The link in `url`, or nothing when it is not a connect link with a code
  // of 4 to 16 characters. Accepts "corvane://connect?..." and
  // "corvane:connect?...", scheme and target in any case.
  static std::optional<ConnectLink> parse(std::string_view url);

  // "corvane://connect?code=" + code + "&server=" + server, both escaped.
  static std::string make(std::string_view code, std::string_view server);
};

}  // namespace corvane
