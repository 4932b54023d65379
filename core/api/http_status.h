// Standard reason phrases of HTTP status codes, for error messages when a
// server gives no better explanation. Pure; safe to call from any thread.
#pragma once

#include <string>

namespace corvane {

// "Service Unavailable" for 503; for codes without a registered phrase, the
// name of their class ("Server Error" for 599).
std::string httpStatusText(int status);

}  // namespace corvane
