// AppModel: every decision of the menu-bar application — the setup step the
// wizard shows, pairing by browser link or code, the permission states and
// their polling, the sync loop and what its failures mean, the status report
// to the server and launch at login. Views (app/ui/) only read `published()`
// and call the operations below; they learn of changes through observe().
//
// Portable C++: no Qt, no platform headers. Everything it touches is handed
// in (Services), so tests drive it with a virtual-time scheduler.
//
// Threads: construct, call and destroy it on the main thread only. Blocking
// work (the sync cycle, network calls, the Automation prompt, reading own
// handles) runs on the BackgroundWorker; its results, and the Contacts
// prompt's answer, come back through MainScheduler::post and are dropped
// once the model is gone.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "app/model/main_scheduler.h"
#include "app/platform/login_item.h"
#include "app/platform/opener.h"
#include "app/platform/permissions.h"
#include "app/platform/relocator.h"
#include "app/platform/token_store.h"
#include "app/platform/updater.h"
#include "app/platform/user_defaults.h"
#include "core/api/agent_api.h"
#include "core/contacts/contact_book.h"
#include "core/protocol/connect_link.h"
#include "core/protocol/wire_types.h"
#include "core/send/message_sender.h"
#include "core/sync/state_store.h"
#include "core/sync/stop_source.h"
#include "core/sync/sync_engine.h"
#include "core/sync/sync_logger.h"

namespace corvane {

class ContactsCache;
class DirectoryCache;

// The wizard's steps, in the wizard's order.
enum class SetupStep { move = 0, connect = 1, fullDisk = 2, automation = 3, contacts = 4, done = 5 };

struct SyncPhase {
  enum class Kind { error, idle, syncing };
  Kind kind = Kind::idle;
  std::string text;  // error only: the line the menu shows

  static SyncPhase error(std::string text) { return {Kind::error, std::move(text)}; }
  static SyncPhase idle() { return {}; }
  static SyncPhase syncing() { return {Kind::syncing, {}}; }
  bool operator==(const SyncPhase&) const = default;
};

struct PairingState {
  enum class Kind { waitingForBrowser, failed, success, idle, pairing };
  Kind kind = Kind::idle;
  std::int64_t sinceMs = 0;               // waitingForBrowser: when Connect was pressed
  std::string text;                       // failed
  std::optional<std::string> userName{};  // success

  static PairingState waitingForBrowser(std::int64_t sinceMs) {
    return {Kind::waitingForBrowser, sinceMs, {}, {}};
  }
  static PairingState failed(std::string text) { return {Kind::failed, 0, std::move(text), {}}; }
  static PairingState success(std::optional<std::string> userName) {
    return {Kind::success, 0, {}, std::move(userName)};
  }
  static PairingState idle() { return {}; }
  static PairingState pairing() { return {Kind::pairing, 0, {}, {}}; }
  bool operator==(const PairingState&) const = default;
};

class AppModel {
 public:
  // What the views see. Dates are Unix milliseconds.
  struct Published {
    bool connected = false;
    std::optional<std::string> userName{};
    std::string server{};
    PairingState pairing{};
    std::optional<ConnectLink> pendingLink{};
    bool fullDiskAccess = false;
    bool messagesReady = false;
    PermissionState automation = PermissionState::unknown;
    bool automationBusy = false;
    std::optional<std::string> automationMessage{};
    PermissionState contacts = PermissionState::unknown;
    bool contactsBusy = false;  // the Contacts prompt is showing
    // What the system has to ask for (Options): without Messages sending
    // needs no permission, and without an address book there are no names.
    bool automationNeeded = true;
    bool addressBook = true;
    std::optional<std::int64_t> openedFullDiskSettingsAt{};
    bool paused = false;
    SyncPhase phase{};
    std::optional<std::int64_t> lastSyncAt{};
    std::optional<std::int64_t> rosterCount{};
    std::int64_t now = 0;
    SetupStep step = SetupStep::connect;
    bool launchAtLogin = false;
    std::optional<std::string> loginItemError{};
    std::optional<std::string> moveError{};
    std::optional<std::string> availableVersion{};
    bool canCheckForUpdates = false;
    bool operator==(const Published&) const = default;
  };

  // Blocking calls to the server: one client per server and token (absent
  // token: pairing only).
  using APIFactory = std::function<std::shared_ptr<AgentAPI>(const std::string& server,
                                                             std::optional<std::string> token)>;
  using StoreFactory = std::function<std::shared_ptr<StateStore>(const std::filesystem::path& dir)>;
  using ContactsLoader = std::function<std::shared_ptr<const ContactBook>()>;

  struct Services {
    TokenStore& tokens;
    UserDefaults& defaults;
    PermissionProbes& probes;
    MainScheduler& scheduler;
    BackgroundWorker& worker;
    std::function<std::int64_t()> clock;  // Unix milliseconds
    APIFactory makeAPI;
    StoreFactory makeStore;               // FileStateStore when empty
    std::shared_ptr<MessageSender> sender;
    ContactsLoader loadContacts{};         // no names when empty
    LoginItem& loginItem;
    Relocator& relocator;
    Opener& opener;
    Updater* updater = nullptr;            // none: no update checks
    std::shared_ptr<SyncLogger> log;
  };

  struct Options {
    std::string chatDBPath;
    std::filesystem::path stateDir;  // holds "state.json"
    std::filesystem::path executablePath;  // revealed and relaunched outside a bundle
    std::optional<std::string> region{};
    std::string appVersion;
    std::string osVersion;
    std::string deviceName;
    bool previewMode = false;   // screenshots: no probes, no network, no token store
    bool qaExpectLink = false;  // "--qa-expect-link": as if Connect had just been pressed
    // Texts go through Messages, so sending needs Automation; otherwise the
    // sender needs no permission and Automation counts as granted.
    bool sendsThroughMessages = true;
    // The Contacts step has an address book to ask for; otherwise it only
    // says so.
    bool addressBook = true;
  };

  // The texts the model publishes.
  static constexpr std::string_view codeTooShortText =
      "That code looks too short. Codes are on the Corvane website under Settings \u203A Devices.";
  static constexpr std::string_view disconnectedText = "This Mac was disconnected from your account.";
  static constexpr std::string_view messagesMissingText = "Open Messages and sign in to iMessage";
  static constexpr std::string_view cantReachText = "Can't reach Corvane \u2014 retrying";
  static constexpr std::string_view syncProblemText = "Sync problem \u2014 retrying";

  // Timings of the application, in seconds.
  static constexpr double tickSec = 30.0;
  static constexpr int ticksPerRefresh = 10;
  static constexpr double fullDiskPollSec = 2.0;
  static constexpr double fullDiskAdvanceSec = 1.2;
  static constexpr double automationAdvanceSec = 1.0;
  static constexpr double contactsAdvanceSec = 0.9;
  static constexpr double pairedAdvanceSec = 1.6;
  static constexpr std::int64_t linkWindowMs = 900'000;
  static constexpr std::int64_t statusRepeatMs = 300'000;
  static constexpr std::int64_t ownHandlesRepeatMs = 3'600'000;
  static constexpr std::int64_t ownHandlesLookbackDays = 180;
  static constexpr int missingDatabaseNapSec = 300;
  static constexpr int noFullDiskAccessNapSec = 60;

  AppModel(Services services, Options options);
  ~AppModel();
  AppModel(const AppModel&) = delete;
  AppModel& operator=(const AppModel&) = delete;

  const Published& published() const { return p_; }
  bool previewMode() const { return options_.previewMode; }

  // `onChange` runs on the main thread after each operation or result that
  // changed published(). Returns a key for unobserve.
  int observe(std::function<void()> onChange);
  void unobserve(int key);

  // Start-up, once launch has finished: token, state, server, permissions,
  // step, launch at login, the sync loop, the tick, the first reports.
  void start();
  // Stops the loop (the running cycle at its next stage boundary) and every
  // timer. The destructor does it too.
  void shutdown();

  // The step to show, from the permissions, the pairing and the skip flags.
  SetupStep currentStep() const;
  // Moves on from a finished step `from`, past the steps already satisfied;
  // nothing unless the wizard shows `from`. Ignores the skip flags.
  void advance(SetupStep from);
  // When the setup window is shown: a later step the user reached is kept,
  // otherwise (or from done) the wizard starts at currentStep().
  void showCurrentStep();
  // The wizard's back control: the previous step (never the Move step when
  // there is nothing to move). canGoBack says whether there is one, which is
  // when the control shows.
  void goBack();
  bool canGoBack() const;
  // "Not now" / "Skip for now" on move, automation or contacts: remembers
  // the choice, then shows currentStep().
  void skip(SetupStep step);
  // True when the window should open at launch: not connected, no Full Disk
  // Access, or the setup was never finished.
  bool needsSetup() const;
  // "Done": the setup is finished; the window no longer opens by itself.
  void finishSetup();
  bool setupCompleted() const;

  // Pairing.
  void connectWithBrowser();
  void pair(const std::string& code, const std::string& server);
  void handleLink(std::string_view url);
  void confirmPendingLink();
  void cancelPendingLink();
  void disconnect(std::optional<std::string> message = std::nullopt);
  // The page "Connect with Corvane" opens, on `server`.
  static std::string connectPageURL(const std::string& server);

  // Permissions.
  void refreshPermissions();
  void requestAutomation();
  void requestContacts();
  void openFullDiskSettings();
  void openPrivacyPane(std::string_view anchor);
  void stopPermissionPoll();

  // The bundle.
  void moveToApplications();
  void revealApplication();
  void relaunch();

  // Reports and the loop.
  void reportStatus(bool force);
  void refreshOwnHandles(bool force);
  void wake();
  void setPaused(bool paused);

  void setLaunchAtLogin(bool on);
  void checkForUpdates();

  // Preview mode only: shows `fields` as they are, for screenshots.
  void setPreview(const Published& fields);

 private:
  struct Life;  // shared with work in flight; gone once the model is

  template <class Change>
  void update(Change&& change);
  void notify();
  void tick();
  void afterDelay(double seconds, std::function<void()> work);
  // A callback for any thread that runs `done` on the main thread, unless
  // the model is gone by then.
  template <class Result>
  std::function<void(Result)> onMain(std::function<void(Result)> done);
  // Runs `work` on the worker and `done` with its result on the main thread.
  template <class Result>
  void offMain(std::function<Result()> work, std::function<void(Result)> done);

  std::shared_ptr<StateStore> storeForAccount();
  void loadState();
  void mirrorUpdater();
  // The probes without the status report that refreshPermissions adds.
  void refreshProbes();
  void paired(const std::string& server, const PairResponse& response);
  bool stepSatisfied(SetupStep step) const;
  bool moveApplies() const;
  std::filesystem::path applicationPath() const;
  std::optional<std::string> region() const;
  AgentStatusRequest statusRequest() const;

  // The sync loop.
  void loopStep();
  void runCycle();
  void cycleFinished(std::uint64_t generation, std::optional<CycleResult> result,
                     std::exception_ptr failure);
  int napAfterFailure(const std::exception& error);
  void nap(double seconds);
  void stopCycle();

  Services s_;
  Options options_;
  Published p_;
  std::shared_ptr<Life> life_;
  std::map<int, std::function<void()>> observers_;
  int nextObserver_ = 1;

  std::optional<std::string> token_;
  std::shared_ptr<StateStore> store_;  // this account's; replaced when pairing
  std::shared_ptr<ContactsCache> contactsCache_;
  std::shared_ptr<DirectoryCache> directoryCache_;  // per account: dropped when pairing
  std::shared_ptr<FingerprintMemo> fingerprints_;  // the same
  MainScheduler::TimerId tickTimer_ = 0, napTimer_ = 0, permissionPoll_ = 0;
  std::vector<MainScheduler::TimerId> delays_;  // one-shot waits to cancel at shutdown
  std::optional<AgentStatusRequest> lastStatusSent_;
  std::optional<std::int64_t> lastStatusAt_;
  std::optional<std::vector<std::string>> ownHandles_;
  std::optional<std::int64_t> ownHandlesCheckedAt_;
  bool ownHandlesBusy_ = false;
  int tickCount_ = 0;
  bool started_ = false;
  bool loopRunning_ = false;
  bool cycleInFlight_ = false;
  bool wakePending_ = false;
  std::uint64_t generation_ = 0;  // changes with the account; stale cycles are ignored
  StopSource cycleStop_;
  int failures_ = 0;
  int backoffBaseSec_ = 30;
};

}  // namespace corvane
