#include "bench/cycles.h"

#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "bench/timing.h"
#include "core/api/api_client.h"
#include "core/sync/state_store.h"
#include "core/sync/sync_logger.h"
#include "tests/support/recording.h"
#include "tests/support/temp_dir.h"

namespace corvane::bench {
namespace {

// The resident set now, from /proc (getrusage only knows the peak).
std::int64_t residentKB() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("VmRSS:", 0) == 0) return std::stoll(line.substr(6));
  }
  return 0;
}

std::string shellQuoted(const std::string& s) {
  std::string out = "'";
  for (const char c : s) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return out + "'";
}

}  // namespace

class CycleRunner::TimedAPI final : public AgentAPI {
 public:
  explicit TimedAPI(const std::string& url)
      : client_(url, std::string(BenchServer::token), "Corvane-bench/1") {}

  AgentConfig getConfig() override { return client_.getConfig(); }
  SyncResponse sync(const SyncRequest& request) override {
    const double start = wallSeconds();
    SyncResponse response = client_.sync(request);
    syncSeconds += wallSeconds() - start;
    return response;
  }
  OutboxResponse getOutbox() override { return client_.getOutbox(); }
  void ackOutbox(const std::string& id, const OutboxAck& ack) override {
    client_.ackOutbox(id, ack);
  }
  SelfMessageResponse postSelf(const SelfMessageRequest& request) override {
    return client_.postSelf(request);
  }
  PairResponse pair(const PairRequest& request) override { return client_.pair(request); }
  void postStatus(const AgentStatusRequest& request) override { client_.postStatus(request); }

  double syncSeconds = 0;

 private:
  APIClient client_;
};

CycleRunner::CycleRunner(const std::string& serverURL, std::string chatDBPath, std::string stateDir)
    : api_(std::make_shared<TimedAPI>(serverURL)), stateDir_(std::move(stateDir)) {
  deps_.api = api_;
  deps_.chatDBPath = std::move(chatDBPath);
  deps_.store = std::make_shared<FileStateStore>(stateDir_);
  deps_.sender = std::make_shared<testing::RecordingSender>();
  deps_.region = "US";
  deps_.log = std::make_shared<SilentLogger>();
}

CycleRunner::~CycleRunner() = default;

CycleResult CycleRunner::run(std::int64_t nowMs) {
  deps_.now = [nowMs] { return nowMs; };
  return SyncEngine::runCycle(deps_);
}

void CycleRunner::forgetState() {
  std::filesystem::remove(std::filesystem::path(stateDir_) / FileStateStore::fileName);
}

double CycleRunner::takeSyncSeconds() {
  const double seconds = api_->syncSeconds;
  api_->syncSeconds = 0;
  return seconds;
}

PeakMemory firstCyclePeakMemory(const std::string& self, const BenchServer& server,
                                const std::string& chatDBPath, std::int64_t nowMs) {
  const std::string command = shellQuoted(self) + " " + kChildFlag + " " +
                              shellQuoted(server.url()) + " " + shellQuoted(chatDBPath) + " " +
                              std::to_string(nowMs);
  FILE* child = popen(command.c_str(), "r");
  if (child == nullptr) throw std::runtime_error("can't start " + self);
  long long peak = 0, baseline = 0, messages = 0;
  const int read = std::fscanf(child, "%lld %lld %lld", &peak, &baseline, &messages);
  if (pclose(child) != 0 || read != 3) {
    throw std::runtime_error("the first-cycle child process failed");
  }
  return {peak, baseline, messages};
}

int firstCycleChild(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: %s URL CHAT_DB NOW_MS\n", kChildFlag);
    return 64;
  }
  try {
    testing::TempDir state;
    CycleRunner runner(argv[0], argv[1], state.path());
    const std::int64_t baseline = residentKB();
    const CycleResult result = runner.run(std::stoll(argv[2]));
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    std::printf("%lld %lld %lld\n", static_cast<long long>(usage.ru_maxrss),
                static_cast<long long>(baseline), static_cast<long long>(result.sync.messages));
    return 0;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "first cycle failed: %s\n", e.what());
    return 1;
  }
}

}  // namespace corvane::bench
