#include "bench/bench_server.h"

#include <stdexcept>

#include "core/protocol/wire_json.h"

namespace corvane::bench {

BenchServer::BenchServer() {
  const auto json = [](httplib::Response& response, const std::string& body) {
    response.set_content(body, "application/json");
  };
  http_.Get("/api/agent/config", [this, json](const httplib::Request&, httplib::Response& r) {
    std::lock_guard lock(mutex_);
    json(r, configJSON_);
  });
  http_.Post("/api/agent/sync", [this, json](const httplib::Request& q, httplib::Response& r) {
    syncBytes_ += q.body.size();
    ++syncRequests_;
    json(r, R"({"accepted":0,"dropped":0})");
  });
  http_.Get("/api/agent/outbox",
            [json](const httplib::Request&, httplib::Response& r) { json(r, R"({"items":[]})"); });
  http_.Post("/api/agent/self",
             [json](const httplib::Request&, httplib::Response& r) { json(r, R"({"queued":1})"); });
  port_ = http_.bind_to_any_port("127.0.0.1");
  if (port_ <= 0) throw std::runtime_error("bench server: can't bind 127.0.0.1");
  thread_ = std::thread([this] { http_.listen_after_bind(); });
  // A stop() before the accept loop runs would be lost and hang the join.
  while (!http_.is_running()) std::this_thread::yield();
}

BenchServer::~BenchServer() {
  http_.stop();
  thread_.join();
}

void BenchServer::setConfig(const AgentConfig& config) {
  std::string text = encodeJSON(config);
  std::lock_guard lock(mutex_);
  configJSON_ = std::move(text);
}

}  // namespace corvane::bench
