// Test doubles for the API client: a real HTTP server on 127.0.0.1 that
// records every request and answers as the test says, and a raw TCP server
// that hands back the exact bytes of one request and answers with canned
// bytes (for header order and broken answers).
#pragma once

#include <arpa/inet.h>
#include <httplib.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace corvane::testing {

struct RecordedRequest {
  std::string method;
  std::string target;  // as sent, still percent-encoded
  httplib::Headers headers;
  std::string body;
};

class LoopbackServer {
 public:
  using Responder = std::function<void(const httplib::Request&, httplib::Response&)>;

  // Answers every request with `status` and `body` as JSON.
  static Responder answer(int status, std::string body,
                          std::string contentType = "application/json") {
    return [=](const httplib::Request&, httplib::Response& response) {
      response.status = status;
      response.set_content(body, contentType);
    };
  }

  explicit LoopbackServer(Responder responder = answer(200, "{}"))
      : responder_(std::move(responder)) {
    const auto handle = [this](const httplib::Request& request, httplib::Response& response) {
      {
        std::lock_guard lock(mutex_);
        requests_.push_back({request.method, request.target, request.headers, request.body});
      }
      responder_(request, response);
    };
    http_.Get(".*", handle);
    http_.Post(".*", handle);
    port_ = http_.bind_to_any_port("127.0.0.1");
    thread_ = std::thread([this] { http_.listen_after_bind(); });
    // stop() before the accept loop runs would be lost and hang the join.
    while (port_ > 0 && !http_.is_running()) std::this_thread::yield();
  }

  ~LoopbackServer() {
    release();
    http_.stop();
    thread_.join();
  }

  LoopbackServer(const LoopbackServer&) = delete;
  LoopbackServer& operator=(const LoopbackServer&) = delete;

  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }
  int port() const { return port_; }

  std::vector<RecordedRequest> requests() const {
    std::lock_guard lock(mutex_);
    return requests_;
  }

  // For responders that must not answer before the test is done with them
  // (time-outs): blocks until release() or the server's end.
  void waitForRelease() {
    std::unique_lock lock(mutex_);
    released_cv_.wait(lock, [this] { return released_; });
  }

  void release() {
    std::lock_guard lock(mutex_);
    released_ = true;
    released_cv_.notify_all();
  }

 private:
  Responder responder_;
  httplib::Server http_;
  int port_ = -1;
  std::thread thread_;
  mutable std::mutex mutex_;
  std::vector<RecordedRequest> requests_;
  bool released_ = false;
  std::condition_variable released_cv_;
};

// Accepts one connection, reads one request (head and Content-Length body),
// writes `reply` verbatim and closes.
class RawServer {
 public:
  explicit RawServer(std::string reply) : reply_(std::move(reply)) {
    listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
        listen(listener_, 1) == 0 &&
        getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
      port_ = ntohs(address.sin_port);
    }
    thread_ = std::thread([this] { serveOne(); });
  }

  ~RawServer() {
    shutdown(listener_, SHUT_RDWR);  // wakes accept() if no client came
    thread_.join();
    close(listener_);
  }

  RawServer(const RawServer&) = delete;
  RawServer& operator=(const RawServer&) = delete;

  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }

  // The request as received; complete once the client call has returned.
  std::string request() {
    std::lock_guard lock(mutex_);
    return request_;
  }

 private:
  void serveOne() {
    const int client = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (client < 0) return;
    std::string text;
    char buffer[4096];
    std::size_t wanted = std::string::npos;
    while (wanted == std::string::npos || text.size() < wanted) {
      const ssize_t n = recv(client, buffer, sizeof buffer, 0);
      if (n <= 0) break;
      text.append(buffer, static_cast<std::size_t>(n));
      const auto end = text.find("\r\n\r\n");
      if (wanted == std::string::npos && end != std::string::npos) {
        std::size_t bodyLength = 0;
        const auto header = text.find("Content-Length: ");
        if (header != std::string::npos && header < end) {
          bodyLength = std::stoul(text.substr(header + 16));
        }
        wanted = end + 4 + bodyLength;
      }
    }
    {
      std::lock_guard lock(mutex_);
      request_ = text;
    }
    send(client, reply_.data(), reply_.size(), MSG_NOSIGNAL);
    close(client);
  }

  std::string reply_;
  int listener_ = -1;
  int port_ = 0;
  std::thread thread_;
  std::mutex mutex_;
  std::string request_;
};

}  // namespace corvane::testing
