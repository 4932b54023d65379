// AppModelRig: an AppModel with everything it touches handed in — a real
// token file, real user defaults and a real state directory under a temp
// dir, a real chat.db, virtual time, a worker the test runs by hand, and
// stand-ins that record what the model asked of the platform and the server.
//
//   AppModelRig rig;
//   rig.probes.access = {true, true};
//   rig.start();
//   rig.model().pair("ABCD1234", rig.server);
//   rig.settle();                 // runs worker jobs and what they post
//
// Header only, so each test binary that links the model can use it.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "app/model/app_model.h"
#include "app/model/thread_worker.h"
#include "core/contacts/contact_book.h"
#include "tests/support/fake_agent_api.h"
#include "tests/support/recording.h"
#include "tests/support/temp_dir.h"
#include "tests/support/virtual_scheduler.h"
#include "tools/chatdb-gen/chat_db_builder.h"

namespace corvane::testing {

class FakeProbes final : public PermissionProbes {
 public:
  FullDiskAccess access{true, true};
  std::optional<PermissionState> automationAnswer;  // the never-prompting probe
  AutomationRequest automationRequestAnswer{PermissionState::granted, std::nullopt};
  PermissionState contacts = PermissionState::unknown;
  PermissionState contactsAfterRequest = PermissionState::granted;
  std::vector<std::string> panes;
  int fullDiskProbes = 0, automationRequests = 0, contactsRequests = 0;

  FullDiskAccess probeFullDiskAccess(const std::string&) override { ++fullDiskProbes; return access; }
  std::optional<PermissionState> automationPermission() override { return automationAnswer; }
  AutomationRequest requestAutomation() override {
    ++automationRequests;
    return automationRequestAnswer;
  }
  PermissionState contactsAuthorization() override { return contacts; }
  // Answers at once, as the platform does when the user has decided before.
  void requestContactsAccess(std::function<void(bool)> answered) override {
    ++contactsRequests;
    contacts = contactsAfterRequest;
    answered(contacts == PermissionState::granted);
  }
  void openPrivacyPane(std::string_view anchor) override { panes.emplace_back(anchor); }
};

class FakeLoginItem final : public LoginItem {
 public:
  bool enabled = false;
  std::optional<std::string> failure, approval;
  int registers = 0, unregisters = 0;

  bool isEnabled() override { return enabled; }
  std::optional<std::string> pendingApproval() override { return approval; }
  std::optional<std::string> registerItem() override { return change(true, registers); }
  std::optional<std::string> unregisterItem() override { return change(false, unregisters); }
  std::optional<std::string> change(bool on, int& count) {
    ++count;
    if (!failure) enabled = on;
    return failure;
  }
};

class FakeRelocator final : public Relocator {
 public:
  std::optional<std::filesystem::path> bundle;
  bool inApplications = true;
  std::optional<std::string> moveFailure;
  int moves = 0;
  std::vector<std::filesystem::path> relaunched;

  std::optional<std::filesystem::path> bundlePath() override { return bundle; }
  bool isInApplications() override { return inApplications; }
  std::optional<std::string> moveToApplications() override { ++moves; return moveFailure; }
  void relaunch(const std::filesystem::path& path) override { relaunched.push_back(path); }
};

class FakeOpener final : public Opener {
 public:
  std::vector<std::string> urls;
  std::vector<std::filesystem::path> revealed;
  void openURL(const std::string& url) override { urls.push_back(url); }
  void reveal(const std::filesystem::path& path) override { revealed.push_back(path); }
};

class AppModelRig {
 public:
  // A client the model made, and for whom.
  struct MadeAPI {
    std::string server;
    std::optional<std::string> token;
    std::shared_ptr<FakeAgentAPI> api;
  };

  const std::string server = "https://corvane.app";
  TempDir dir;
  FileTokenStore tokens{std::filesystem::path(dir.file("config"))};
  JsonFileUserDefaults defaults{std::filesystem::path(dir.file("config/defaults.json"))};
  FakeProbes probes;
  VirtualScheduler scheduler;
  ManualWorker manualWorker;
  // A test may hand in real ones instead: threads, the Qt event loop, the clock.
  BackgroundWorker* worker = &manualWorker;
  MainScheduler* mainScheduler = &scheduler;
  std::function<std::int64_t()> clock = scheduler.clock();
  FakeLoginItem loginItem;
  FakeRelocator relocator;
  FakeOpener opener;
  std::shared_ptr<RecordingSender> sender = std::make_shared<RecordingSender>();
  std::shared_ptr<RecordingLogger> log = std::make_shared<RecordingLogger>();
  // How often a cycle loaded the address book (an empty one); the loader may
  // run on a worker thread.
  std::atomic<int> contactsLoads{0};
  std::string chatDB = dir.file("chat.db");
  AppModel::Options options{.chatDBPath = chatDB, .stateDir = dir.file("state"),
                            .executablePath = dir.file("Corvane"), .region = "US",
                            .appVersion = "1.2.3", .osVersion = "macOS 14.5",
                            .deviceName = "Test Mac"};
  // Sets up every client the model makes (the answers, failWith hooks).
  std::function<void(FakeAgentAPI&, const std::string& server,
                     const std::optional<std::string>& token)>
      configureAPI;
  // When set, makes the clients instead (a real one, for end-to-end tests).
  AppModel::APIFactory makeAPI;

  AppModelRig() {
    chatdbgen::ChatDbBuilder db(chatDB);
    db.message(db.oneToOne("+14155550100"), "hi");
  }

  // Stores a device token as a previous pairing would have.
  void pairedBefore(const std::string& token = "tok-old") {
    tokens.save(TokenStore::deviceTokenKey, token);
  }

  AppModel& model() {
    if (!model_) {
      AppModel::APIFactory fakes = [this](const std::string& s, std::optional<std::string> t) {
        return make(s, t);
      };
      model_ = std::make_unique<AppModel>(
          AppModel::Services{.tokens = tokens,
                             .defaults = defaults,
                             .probes = probes,
                             .scheduler = *mainScheduler,
                             .worker = *worker,
                             .clock = clock,
                             .makeAPI = makeAPI ? makeAPI : fakes,
                             .makeStore = {},
                             .sender = sender,
                             .loadContacts =
                                 [this] {
                                   ++contactsLoads;
                                   return std::make_shared<const EmptyContactBook>();
                                 },
                             .loginItem = loginItem,
                             .relocator = relocator,
                             .opener = opener,
                             .log = log},
          options);
    }
    return *model_;
  }
  const AppModel::Published& published() { return model().published(); }
  void start() { model().start(); }
  // Paired before, started, and the first cycle and report done.
  void startPaired() {
    pairedBefore();
    start();
    settle();
  }
  void destroy() { model_.reset(); }

  // Real worker threads instead of the manual worker, for races and for
  // ThreadSanitizer; call before the model is made.
  void useThreads() {
    threads_ = std::make_unique<ThreadWorker>();
    worker = threads_.get();
  }
  // Destroys the model, then waits for every job to end.
  void joinThreads() {
    destroy();
    threads_.reset();
  }
  // Runs what the threads post to the main thread until `done` holds; fails
  // the test after a generous deadline instead of hanging.
  template <class Done>
  void pumpUntil(Done done) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!done()) {
      scheduler.runPending();
      if (std::chrono::steady_clock::now() > deadline) {
        ADD_FAILURE() << "gave up waiting";
        return;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }

  // Runs worker jobs and everything they post until nothing is left.
  void settle() {
    do scheduler.runPending();
    while (manualWorker.runOne());
  }

  std::vector<MadeAPI> made() const {
    std::lock_guard lock(mutex_);
    return made_;
  }
  // Calls of `kind` over every client made so far.
  int calls(FakeAgentAPI::Call kind) const {
    int n = 0;
    for (const auto& m : made()) n += std::count(m.api->calls.begin(), m.api->calls.end(), kind);
    return n;
  }
  // Every pairing request sent, as "server code".
  std::vector<std::string> pairings() const {
    std::vector<std::string> all;
    for (const auto& m : made())
      for (const auto& r : m.api->pairs) all.push_back(m.server + " " + r.code);
    return all;
  }
  std::vector<AgentStatusRequest> statuses() const {
    std::vector<AgentStatusRequest> all;
    for (const auto& m : made()) all.insert(all.end(), m.api->statuses.begin(), m.api->statuses.end());
    return all;
  }

 private:
  std::shared_ptr<AgentAPI> make(const std::string& s, const std::optional<std::string>& t) {
    auto api = std::make_shared<FakeAgentAPI>();
    api->config.rosterHandles = {"+14155550100"};
    if (configureAPI) configureAPI(*api, s, t);
    std::lock_guard lock(mutex_);
    made_.push_back({s, t, api});
    return api;
  }

  mutable std::mutex mutex_;
  std::vector<MadeAPI> made_;
  // Joined after the model is gone, while what the jobs use is still there.
  std::unique_ptr<ThreadWorker> threads_;
  std::unique_ptr<AppModel> model_;
};

}  // namespace corvane::testing
