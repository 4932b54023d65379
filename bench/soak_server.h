// The agent API for the soak: the development server over an in-memory store,
// in a child process of its own so that the soak's memory, descriptor and
// thread figures are the agent's alone. The soak drives it over a pair of
// pipes: one command line in, one answer line out.
//
// One thread (the soak's) uses a SoakServer; it is not safe across threads.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <cstdio>
#include <string>

#include "core/protocol/wire_types.h"

namespace corvane::bench {

// What the next matching request gets instead of its answer.
enum class Fault {
  status500,  // a 500 with an error body
  dropped,    // headers promising a body, a few bytes of it, then the connection closed
};

// What the server holds so far.
struct ServerCounts {
  std::int64_t messages = 0;    // distinct messages stored
  std::int64_t sent = 0;        // outbox items acknowledged as sent
  std::int64_t failed = 0;      // outbox items acknowledged as failed
  std::int64_t pending = 0;     // outbox items not acknowledged yet
  std::int64_t faultsHit = 0;   // armed faults that met their request
};

class SoakServer {
 public:
  static constexpr const char* token = "soak-token";

  // Starts `self` (this program) as the server, answering `config`. Throws
  // std::runtime_error when the child can't be started or doesn't answer.
  SoakServer(const std::string& self, const AgentConfig& config);
  // Closes the pipes (the child stops at end of input) and reaps the child.
  ~SoakServer();
  SoakServer(const SoakServer&) = delete;
  SoakServer& operator=(const SoakServer&) = delete;

  const std::string& url() const { return url_; }

  // The first later request whose path starts with `pathPrefix` fails with
  // `fault`. disarm() forgets a fault that met no request and says whether
  // it met one.
  void arm(Fault fault, const std::string& pathPrefix);
  bool disarm();
  void addOutbox(const OutboxItem& item);
  ServerCounts counts();

 private:
  std::string command(const std::string& line);
  void shutDown();

  pid_t pid_ = -1;
  std::FILE* in_ = nullptr;   // the child's standard input
  std::FILE* out_ = nullptr;  // the child's standard output
  std::string url_;
};

// The child's side, given the arguments after the mode flag; returns the exit
// status.
int soakServerChild(int argc, char** argv);
inline constexpr const char* kServerChildFlag = "--server-child";

}  // namespace corvane::bench
