// A real AppModel for view tests: started on virtual time with a manual
// worker, over stand-ins that answer as the test says and record what the
// model asked of them, and a real defaults file and token store in a
// temporary directory. Also a preview-mode model, whose published state the
// test sets directly.
#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "app/model/app_model.h"
#include "app/platform/token_store.h"
#include "app/platform/user_defaults.h"
#include "tests/support/fake_agent_api.h"
#include "tests/support/recording.h"
#include "tests/support/temp_dir.h"
#include "tests/support/virtual_scheduler.h"

namespace corvane::testing {

class ScriptedProbes final : public PermissionProbes {
 public:
  FullDiskAccess fullDisk{true, true};
  std::optional<PermissionState> automation;
  AutomationRequest automationAnswer{PermissionState::granted, std::nullopt};
  PermissionState contacts = PermissionState::unknown;
  PermissionState contactsAfterRequest = PermissionState::granted;
  std::vector<std::string> openedPanes;
  int automationRequests = 0;

  FullDiskAccess probeFullDiskAccess(const std::string&) override { return fullDisk; }
  std::optional<PermissionState> automationPermission() override { return automation; }
  AutomationRequest requestAutomation() override {
    ++automationRequests;
    automation = automationAnswer.state;
    return automationAnswer;
  }
  PermissionState contactsAuthorization() override { return contacts; }
  bool requestContactsAccess() override {
    contacts = contactsAfterRequest;
    return contacts == PermissionState::granted;
  }
  void openPrivacyPane(std::string_view anchor) override { openedPanes.emplace_back(anchor); }
};

class RecordingLoginItem final : public LoginItem {
 public:
  bool enabled = false;
  std::optional<std::string> failure;
  bool isEnabled() override { return enabled; }
  std::optional<std::string> registerItem() override {
    if (!failure) enabled = true;
    return failure;
  }
  std::optional<std::string> unregisterItem() override {
    if (!failure) enabled = false;
    return failure;
  }
};

class RecordingRelocator final : public Relocator {
 public:
  std::optional<std::filesystem::path> bundle;  // none: nothing to move
  std::optional<std::string> moveFailure;
  int moves = 0;
  std::vector<std::filesystem::path> relaunched;
  std::optional<std::filesystem::path> bundlePath() override { return bundle; }
  bool isInApplications() override { return false; }
  std::optional<std::string> moveToApplications() override {
    ++moves;
    return moveFailure;
  }
  void relaunch(const std::filesystem::path& path) override { relaunched.push_back(path); }
};

class RecordingOpener final : public Opener {
 public:
  std::vector<std::string> urls;
  std::vector<std::filesystem::path> revealed;
  void openURL(const std::string& url) override { urls.push_back(url); }
  void reveal(const std::filesystem::path& path) override { revealed.push_back(path); }
};

// Everything a model needs, kept alive as long as the fixture.
class ModelStandIns {
 public:
  static constexpr const char* sampleServer = "http://127.0.0.1:8787";

  TempDir dir;
  JsonFileUserDefaults defaults{dir.file("defaults.json")};
  FileTokenStore tokens{dir.file("config")};
  ScriptedProbes probes;
  VirtualScheduler scheduler;
  ManualWorker worker;
  RecordingLoginItem loginItem;
  RecordingRelocator relocator;
  RecordingOpener opener;
  std::shared_ptr<FakeAgentAPI> api = std::make_shared<FakeAgentAPI>();
  std::vector<std::string> apiServers;  // the server of every client made
  std::unique_ptr<AppModel> model;

  // A model as a restarted application would have it: same files, same
  // stand-ins. `paired` stores a token first. Sync cycles stay paused so the
  // worker only runs what the test starts.
  AppModel& start(bool paired = false, bool preview = false) {
    if (paired) {
      tokens.save(TokenStore::deviceTokenKey, "tok-old");
      defaults.setString(DefaultsKey::userName, "Robin");
    }
    defaults.setString(DefaultsKey::server, sampleServer);
    model.reset();
    AppModel::Options options;
    options.chatDBPath = dir.file("missing-chat.db");
    options.stateDir = dir.file("state");
    options.homeDirectory = dir.path();
    options.executablePath = dir.file("Corvane");
    options.appVersion = "1.0";
    options.deviceName = "Test Mac";
    options.previewMode = preview;
    model = std::make_unique<AppModel>(
        AppModel::Services{
            .tokens = tokens,
            .defaults = defaults,
            .probes = probes,
            .scheduler = scheduler,
            .worker = worker,
            .clock = scheduler.clock(),
            .makeAPI = [this](const std::string& server,
                              std::optional<std::string>) -> std::shared_ptr<AgentAPI> {
              apiServers.push_back(server);
              return api;
            },
            .makeStore = {},
            .sender = std::make_shared<RecordingSender>(),
            .loadContacts = {},
            .loginItem = loginItem,
            .relocator = relocator,
            .opener = opener,
            .updater = nullptr,
            .log = std::make_shared<RecordingLogger>(),
        },
        options);
    model->setPaused(true);
    if (!preview) model->start();
    return *model;
  }

  // Lets every queued job and its result run, and time pass by `seconds`.
  void settle(double seconds = 0) {
    worker.runAll();
    scheduler.runPending();
    if (seconds > 0) scheduler.advance(seconds);
  }
};

}  // namespace corvane::testing
