// Test doubles for the API client: a real HTTP server on 127.0.0.1 that
// records every request and answers as the test says, and a raw TCP server
// that runs a script per connection (header order, broken and hostile
// answers).
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <httplib.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
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

// A raw TCP server on 127.0.0.1 that reads the head of each request (request
// line and headers, as sent) and then does whatever its script says, however
// un-HTTP that is: for header order, broken answers and hostile servers.
// Connections are served one after another; the destructor shuts the
// sockets down, which ends a script that is still waiting or streaming.
class ScriptedServer {
 public:
  // What a script can do with its connection. send() returns false once the
  // client has hung up or the server is going away.
  class Connection {
   public:
    explicit Connection(int fd) : fd_(fd) {}

    bool send(std::string_view bytes) {
      while (!bytes.empty()) {
        const ssize_t n = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        sent += static_cast<std::size_t>(n);
        bytes.remove_prefix(static_cast<std::size_t>(n));
      }
      return true;
    }

    // The same bytes again and again, for as long as the client reads.
    void sendForever(std::string_view chunk) {
      while (send(chunk)) {
      }
    }

    // Says nothing more until the client hangs up.
    void waitForHangUp() {
      char sink[4096];
      while (::recv(fd_, sink, sizeof sink, 0) > 0) {
      }
    }

    std::size_t sent = 0;

   private:
    int fd_;
  };
  using Script = std::function<void(Connection&)>;

  explicit ScriptedServer(Script script) : script_(std::move(script)) {
    listener_ = closeOnExec(::socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
        ::listen(listener_, 4) == 0 &&
        ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
      port_ = ntohs(address.sin_port);
      thread_ = std::thread([this] { serve(); });
    }
  }

  ~ScriptedServer() {
    {
      std::lock_guard lock(mutex_);
      stopping_ = true;
      if (client_ >= 0) ::shutdown(client_, SHUT_RDWR);
    }
    ::shutdown(listener_, SHUT_RDWR);  // ends a waiting accept (on Linux)
    if (thread_.joinable()) thread_.join();
    ::close(listener_);
  }

  ScriptedServer(const ScriptedServer&) = delete;
  ScriptedServer& operator=(const ScriptedServer&) = delete;

  bool listening() const { return port_ > 0; }
  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }

  // Waits until `count` connections have been served to the end of their
  // scripts; false if that takes longer than `timeout`.
  bool waitForServed(std::size_t count,
                     std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
    std::unique_lock lock(mutex_);
    return served_cv_.wait_for(lock, timeout,
                               [&] { return heads_.size() >= count && served_ >= count; });
  }
  // The request heads received, in order.
  std::vector<std::string> heads() const {
    std::lock_guard lock(mutex_);
    return heads_;
  }
  std::size_t bytesSent() const {
    std::lock_guard lock(mutex_);
    return bytesSent_;
  }

 private:
  // Tests start child processes while the server runs, and a child holding
  // a copy of a socket would keep the peer from seeing it close. macOS has
  // neither SOCK_CLOEXEC nor accept4, hence the separate step.
  static int closeOnExec(int fd) {
    if (fd >= 0) ::fcntl(fd, F_SETFD, FD_CLOEXEC);
    return fd;
  }

  void serve() {
    for (;;) {
      const int client = closeOnExec(::accept(listener_, nullptr, nullptr));
      if (client < 0 && errno == EINTR) continue;
      if (client < 0) return;
      {
        std::lock_guard lock(mutex_);
        if (stopping_) {
          ::close(client);
          return;
        }
        client_ = client;
      }
      // The request line and headers; the agent's first request has no body.
      std::string head;
      char buffer[4096];
      ssize_t n;
      while (head.find("\r\n\r\n") == std::string::npos &&
             (n = ::recv(client, buffer, sizeof buffer, 0)) > 0) {
        head.append(buffer, static_cast<std::size_t>(n));
      }
      {
        std::lock_guard lock(mutex_);
        heads_.push_back(std::move(head));
      }
      Connection connection(client);
      script_(connection);
      std::lock_guard lock(mutex_);
      ::close(client);
      client_ = -1;
      bytesSent_ += connection.sent;
      ++served_;
      served_cv_.notify_all();
    }
  }

  Script script_;
  int listener_ = -1;
  int port_ = 0;
  std::thread thread_;
  mutable std::mutex mutex_;
  std::condition_variable served_cv_;
  bool stopping_ = false;
  int client_ = -1;
  std::vector<std::string> heads_;
  std::size_t served_ = 0;
  std::size_t bytesSent_ = 0;
};

}  // namespace corvane::testing
