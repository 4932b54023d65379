// The one error type of the agent API. what() is the finished sentence shown
// in the menu, the setup flow and the log; it never contains the device
// token. An immutable value; safe to share between threads.
#pragma once

#include <exception>
#include <optional>
#include <string>

namespace corvane {

class APIError : public std::exception {
 public:
  enum class Kind {
    unauthorized,    // the token was revoked or is invalid (401)
    http,            // any other answer outside 2xx
    network,         // the server could not be reached or gave no HTTP answer
    badResponse,     // a 2xx answer that is not the expected record, or a bad URL
    insecureServer,  // the server URL is not one the agent talks to
  };

  // `detail` is the server's own explanation (or the status's reason
  // phrase) without the call it failed; empty means the reason phrase.
  static APIError unauthorized(std::string message, std::string detail = {});
  static APIError http(int status, std::string message, std::string detail = {});
  static APIError network(std::string message);
  static APIError badResponse(std::string message);
  static APIError insecureServer(std::string message);

  Kind kind() const { return kind_; }
  const std::string& description() const { return message_; }
  const char* what() const noexcept override { return message_.c_str(); }

  // For unauthorized and http: what the server said went wrong, short
  // enough to quote in a sentence ("That code has expired", "Bad Gateway").
  // For the other kinds, the description.
  std::string detail() const;

  // 401 for unauthorized, the answer's code for http, absent otherwise.
  std::optional<int> status() const;

  // Worth retrying later: network failures, 408, 429 and 5xx answers.
  bool isTransient() const;

 private:
  APIError(Kind kind, int status, std::string message, std::string detail = {});

  Kind kind_;
  int status_;
  std::string message_;
  std::string detail_;
};

}  // namespace corvane
