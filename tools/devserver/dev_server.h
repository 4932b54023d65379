// The agent API as the development server answers it, on top of a DevStore.
// It checks what the real service would reject (unknown tokens, missing
// protocol header, bodies that are not the expected wire record) and writes
// one summary line per request to `log`.
//
// Handlers run on cpp-httplib's worker threads; pairing codes are guarded by
// a lock, the store guards itself, and log lines are written whole.
#pragma once

#include <httplib.h>

#include <mutex>
#include <ostream>
#include <set>
#include <string>
#include <vector>

#include "core/protocol/wire_types.h"
#include "tools/devserver/dev_store.h"

namespace corvane::devserver {

struct DevSettings {
  // The answer of the config call; rosterHandles also decide which uploaded
  // messages are accepted.
  AgentConfig config;
  // Codes that pair a device, each usable once per run.
  std::vector<std::string> pairCodes;
  // Returned as userName on pairing.
  std::string userName = "Developer";
};

class DevServer {
 public:
  DevServer(DevSettings settings, DevStore& store, std::ostream& log);
  DevServer(const DevServer&) = delete;
  DevServer& operator=(const DevServer&) = delete;

  // Registers every route on `http`.
  void install(httplib::Server& http);

 private:
  struct Reply;
  using Handler = Reply (DevServer::*)(const httplib::Request&, httplib::Response&);

  void route(httplib::Server& http, const char* method, const char* pattern, Handler handler);
  void logLine(const httplib::Request& request, int status, const std::string& note);
  Device authorize(const httplib::Request& request);

  Reply pair(const httplib::Request& request, httplib::Response& response);
  Reply config(const httplib::Request& request, httplib::Response& response);
  Reply sync(const httplib::Request& request, httplib::Response& response);
  Reply outbox(const httplib::Request& request, httplib::Response& response);
  Reply ack(const httplib::Request& request, httplib::Response& response);
  Reply self(const httplib::Request& request, httplib::Response& response);
  Reply status(const httplib::Request& request, httplib::Response& response);
  Reply devAddOutbox(const httplib::Request& request, httplib::Response& response);
  Reply devState(const httplib::Request& request, httplib::Response& response);

  DevSettings settings_;
  std::set<std::string> roster_;
  DevStore& store_;
  std::ostream& log_;
  std::mutex mutex_;  // guards unusedCodes_ and log_
  std::set<std::string> unusedCodes_;
};

}  // namespace corvane::devserver
