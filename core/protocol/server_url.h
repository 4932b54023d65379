// Which servers the agent will talk to, and the normal form of a server
// address. Addresses are URL texts such as "https://corvane.app" or
// "http://127.0.0.1:8787". Pure functions; safe to call from any thread.
#pragma once

#include <optional>
#include <set>
#include <string>
#include <string_view>

namespace corvane::ServerURL {

// The production server: an https URL without a path, fixed at build time.
const std::string& defaultURL();

// The production host and the host of the preview deployment, lower case.
const std::set<std::string>& trustedHosts();

// The normal form of a server address typed by a user or passed on the
// command line: scheme lower-cased, no path, query, fragment or user
// information, the port kept. Nothing for anything but https, or http to a
// loopback host. " HTTPS://Example.test/api?x=1 " gives "https://Example.test".
std::optional<std::string> validate(std::string_view text);

// True for "localhost", "*.localhost", "127.*" and "::1", in any case and with
// or without IPv6 brackets.
bool isLoopback(std::string_view host);

// True for an https URL on one of the trusted hosts: such a server, named in
// a connect link, may be used without asking the user.
bool isTrusted(std::string_view url);

}  // namespace corvane::ServerURL
