#include "core/api/api_error.h"

#include <utility>

#include "core/api/http_status.h"

namespace corvane {

APIError::APIError(Kind kind, int status, std::string message, std::string detail)
    : kind_(kind), status_(status), message_(std::move(message)), detail_(std::move(detail)) {}

APIError APIError::unauthorized(std::string message, std::string detail) {
  return APIError(Kind::unauthorized, 401, std::move(message), std::move(detail));
}
APIError APIError::http(int status, std::string message, std::string detail) {
  return APIError(Kind::http, status, std::move(message), std::move(detail));
}
APIError APIError::network(std::string message) {
  return APIError(Kind::network, 0, std::move(message));
}
APIError APIError::badResponse(std::string message) {
  return APIError(Kind::badResponse, 0, std::move(message));
}
APIError APIError::insecureServer(std::string message) {
  return APIError(Kind::insecureServer, 0, std::move(message));
}

std::string APIError::detail() const {
  if (!detail_.empty()) return detail_;
  if (const auto code = status()) return httpStatusText(*code);
  return message_;
}

std::optional<int> APIError::status() const {
  if (kind_ == Kind::unauthorized || kind_ == Kind::http) return status_;
  return std::nullopt;
}

bool APIError::isTransient() const {
  switch (kind_) {
    case Kind::http:
      return status_ == 408 || status_ == 429 || status_ > 499;
    case Kind::network:
      return true;
    default:
      return false;
  }
}

}  // namespace corvane
