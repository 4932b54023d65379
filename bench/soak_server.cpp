#include "bench/soak_server.h"

#include <fcntl.h>
#include <httplib.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <iostream>
#include <mutex>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include "core/protocol/wire_json.h"
#include "tools/devserver/dev_server.h"
#include "tools/devserver/dev_store.h"

extern char** environ;

namespace corvane::bench {
namespace {

// The armed fault, shared by the command loop and the server's threads.
class FaultSwitch {
 public:
  void arm(Fault fault, std::string prefix) {
    std::lock_guard lock(mutex_);
    fault_ = fault;
    prefix_ = std::move(prefix);
  }
  // Whether the fault met its request before it was disarmed.
  bool disarm() {
    std::lock_guard lock(mutex_);
    return !std::exchange(fault_, std::nullopt).has_value();
  }
  std::int64_t hits() {
    std::lock_guard lock(mutex_);
    return hits_;
  }
  // The fault for this request, which it uses up; absent for most requests.
  std::optional<Fault> take(const std::string& path) {
    std::lock_guard lock(mutex_);
    if (!fault_ || path.rfind(prefix_, 0) != 0) return std::nullopt;
    ++hits_;
    return std::exchange(fault_, std::nullopt);
  }

 private:
  std::mutex mutex_;
  std::optional<Fault> fault_;
  std::string prefix_;
  std::int64_t hits_ = 0;
};

httplib::Server::HandlerResponse inject(Fault fault, httplib::Response& response) {
  if (fault == Fault::status500) {
    response.status = 500;
    response.set_content(encodeJSON(ErrorBody{"soak_fault", "An injected server failure."}),
                         "application/json");
  } else {
    // A provider that gives up after its first bytes makes the server close
    // the connection with the promised body unfinished.
    response.set_content_provider(4096, "application/json",
                                  [](std::size_t, std::size_t, httplib::DataSink& sink) {
                                    sink.write("{\"proto", 7);
                                    return false;
                                  });
  }
  return httplib::Server::HandlerResponse::Handled;
}

std::string countsLine(devserver::DevStore& store, FaultSwitch& faults) {
  const WireJSON state = store.state();
  ServerCounts c;
  c.messages = static_cast<std::int64_t>(state["messages"].size());
  for (const auto& item : state["outbox"]) {
    const auto& ack = item["ack"];
    if (!ack.is_object()) {
      ++c.pending;
    } else {
      ++(ack["status"] == "sent" ? c.sent : c.failed);
    }
  }
  c.faultsHit = faults.hits();
  std::ostringstream line;
  line << c.messages << ' ' << c.sent << ' ' << c.failed << ' ' << c.pending << ' ' << c.faultsHit;
  return line.str();
}

// One command; its answer line ("ok", the figures, or "error: ...").
std::string execute(const std::string& line, devserver::DevStore& store, FaultSwitch& faults) {
  std::istringstream words(line);
  std::string verb;
  words >> verb;
  if (verb == "arm") {
    std::string kind, prefix;
    words >> kind >> prefix;
    faults.arm(kind == "500" ? Fault::status500 : Fault::dropped, prefix);
  } else if (verb == "disarm") {
    return faults.disarm() ? "hit" : "missed";
  } else if (verb == "outbox") {
    store.addOutboxItem(decodeJSON<OutboxItem>(line.substr(verb.size() + 1)));
  } else if (verb == "counts") {
    return countsLine(store, faults);
  } else {
    return "error: unknown command " + verb;
  }
  return "ok";
}

void closeOnExec(int fd) { fcntl(fd, F_SETFD, fcntl(fd, F_GETFD) | FD_CLOEXEC); }

}  // namespace

SoakServer::SoakServer(const std::string& self, const AgentConfig& config) {
  int toChild[2], fromChild[2];
  if (pipe(toChild) != 0) throw std::runtime_error("soak server: no pipe");
  if (pipe(fromChild) != 0) {
    close(toChild[0]);
    close(toChild[1]);
    throw std::runtime_error("soak server: no pipe");
  }
  for (const int fd : {toChild[0], toChild[1], fromChild[0], fromChild[1]}) closeOnExec(fd);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, toChild[0], STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, fromChild[1], STDOUT_FILENO);
  const std::string configJSON = encodeJSON(config);
  std::vector<char*> args = {const_cast<char*>(self.c_str()), const_cast<char*>(kServerChildFlag),
                             const_cast<char*>(configJSON.c_str()), nullptr};
  const int spawned = posix_spawn(&pid_, self.c_str(), &actions, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(toChild[0]);
  close(fromChild[1]);
  in_ = fdopen(toChild[1], "w");
  if (in_ == nullptr) close(toChild[1]);
  out_ = fdopen(fromChild[0], "r");
  if (out_ == nullptr) close(fromChild[0]);
  if (spawned != 0) pid_ = -1;
  if (spawned != 0 || in_ == nullptr || out_ == nullptr) {
    shutDown();
    throw std::runtime_error("soak server: can't start " + self);
  }
  char line[256];
  if (std::fgets(line, sizeof line, out_) == nullptr) {
    shutDown();
    throw std::runtime_error("soak server: the child process ended before it listened");
  }
  url_ = line;
  while (!url_.empty() && (url_.back() == '\n' || url_.back() == '\r')) url_.pop_back();
}

SoakServer::~SoakServer() { shutDown(); }

void SoakServer::shutDown() {
  if (in_ != nullptr) std::fclose(in_);
  if (out_ != nullptr) std::fclose(out_);
  in_ = out_ = nullptr;
  if (pid_ > 0) {
    int status = 0;
    while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
    pid_ = -1;
  }
}

std::string SoakServer::command(const std::string& line) {
  std::fputs((line + "\n").c_str(), in_);
  std::fflush(in_);
  std::string answer;
  char buffer[512];
  while (std::fgets(buffer, sizeof buffer, out_) != nullptr) {
    answer += buffer;
    if (answer.back() == '\n') break;
  }
  if (answer.empty()) throw std::runtime_error("soak server: the child process is gone");
  answer.pop_back();
  if (answer.rfind("error: ", 0) == 0) throw std::runtime_error("soak server: " + answer);
  return answer;
}

void SoakServer::arm(Fault fault, const std::string& pathPrefix) {
  command(std::string("arm ") + (fault == Fault::status500 ? "500 " : "drop ") + pathPrefix);
}

bool SoakServer::disarm() { return command("disarm") == "hit"; }

void SoakServer::addOutbox(const OutboxItem& item) { command("outbox " + encodeJSON(item)); }

ServerCounts SoakServer::counts() {
  std::istringstream figures(command("counts"));
  ServerCounts c;
  figures >> c.messages >> c.sent >> c.failed >> c.pending >> c.faultsHit;
  return c;
}

int soakServerChild(int argc, char** argv) {
  if (argc != 1) {
    std::cerr << "usage: " << kServerChildFlag << " CONFIG_JSON\n";
    return 64;
  }
  try {
    devserver::DevStore store(":memory:");
    store.addDevice(SoakServer::token, {"soak-device", "soak"},
                    PairRequest{"", "soak", "unknown", "unknown"});
    std::ostream quiet(nullptr);  // the request lines are of no use here
    devserver::DevServer server({decodeJSON<AgentConfig>(argv[0]), {}, "Soak"}, store, quiet);
    httplib::Server http;
    server.install(http);
    FaultSwitch faults;
    http.set_pre_routing_handler([&faults](const httplib::Request& request,
                                           httplib::Response& response) {
      const auto fault = faults.take(request.path);
      return fault ? inject(*fault, response) : httplib::Server::HandlerResponse::Unhandled;
    });
    const int port = http.bind_to_any_port("127.0.0.1");
    if (port <= 0) {
      std::cerr << "soak server: can't listen on 127.0.0.1\n";
      return 1;
    }
    std::thread listener([&http] { http.listen_after_bind(); });
    std::cout << "http://127.0.0.1:" << port << std::endl;

    // Until the soak closes its end.
    std::string line;
    while (std::getline(std::cin, line)) {
      std::string answer;
      try {
        answer = execute(line, store, faults);
      } catch (const std::exception& e) {
        answer = std::string("error: ") + e.what();
      }
      std::cout << answer << std::endl;
    }
    // A stop() that comes before the accept loop runs would be lost.
    while (!http.is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    http.stop();
    listener.join();
    return 0;
  } catch (const std::exception& e) {
    std::cerr << "soak server: " << e.what() << "\n";
    return 1;
  }
}

}  // namespace corvane::bench
