// A minimal agent API on 127.0.0.1 for the cycle figures: it serves a config
// the benchmark sets, takes sync uploads without parsing them (counting their
// bytes), and has an empty outbox. Deliberately cheaper than the development
// server, so the figures are the agent's and the loopback's, not a server's.
//
// Handlers run on cpp-httplib's threads; every member is safe from any thread.
#pragma once

#include <httplib.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

#include "core/protocol/wire_types.h"

namespace corvane::bench {

class BenchServer {
 public:
  static constexpr const char* token = "bench-token";

  BenchServer();
  ~BenchServer();
  BenchServer(const BenchServer&) = delete;
  BenchServer& operator=(const BenchServer&) = delete;

  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }

  void setConfig(const AgentConfig& config);

  // Body bytes and requests of the sync calls since the last reset.
  std::uint64_t syncBytes() const { return syncBytes_; }
  std::uint64_t syncRequests() const { return syncRequests_; }
  void resetCounts() {
    syncBytes_ = 0;
    syncRequests_ = 0;
  }

 private:
  httplib::Server http_;
  int port_ = -1;
  std::thread thread_;
  mutable std::mutex mutex_;
  std::string configJSON_;
  std::atomic<std::uint64_t> syncBytes_{0}, syncRequests_{0};
};

}  // namespace corvane::bench
