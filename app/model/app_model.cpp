#include "app/model/app_model.h"

#include <algorithm>
#include <exception>
#include <mutex>
#include <stdexcept>
#include <system_error>

#include "core/api/api_error.h"
#include "core/chatdb/chat_db.h"
#include "core/chatdb/directory_cache.h"
#include "core/contacts/phone.h"
#include "core/protocol/iso_time.h"
#include "core/protocol/server_url.h"
#include "core/sync/contacts_cache.h"
#include "core/sync/cycle_failure.h"
#include "core/sync/heap.h"
#include "core/sync/sync_engine.h"
#include "core/text/unicode.h"

namespace corvane {

struct AppModel::Life {};

namespace {

constexpr double kContactsTTLSec = 3600.0;
// How often a paused or unpaired loop looks again; resuming and pairing wake
// it at once, so this only bounds how long a missed wake could be.
constexpr double kIdleNapSec = 60.0;

// A value computed off the main thread, or the exception that stopped it.
template <class T>
struct Outcome {
  std::optional<T> value;
  std::exception_ptr error;
};

template <class T, class F>
Outcome<T> attempt(F&& work) {
  try {
    return {work(), nullptr};
  } catch (...) {
    return {std::nullopt, std::current_exception()};
  }
}

// One account's state store. Pairing retires it before "state.json" is
// deleted: a cycle of the old account still running then can't save into the
// new account's file. The lock makes retiring wait for a save in progress.
class AccountStateStore final : public StateStore {
 public:
  explicit AccountStateStore(std::shared_ptr<StateStore> inner) : inner_(std::move(inner)) {}

  AgentState load() override {
    std::lock_guard lock(mutex_);
    return retired_ ? AgentState{} : inner_->load();
  }
  void save(const AgentState& state) override {
    std::lock_guard lock(mutex_);
    if (retired_) throw std::runtime_error("the account changed; this cycle's state is dropped");
    inner_->save(state);
  }
  void retire() {
    std::lock_guard lock(mutex_);
    retired_ = true;
  }

 private:
  std::mutex mutex_;
  std::shared_ptr<StateStore> inner_;
  bool retired_ = false;
};

// "Trim white space and newlines and remove every blank."
std::string cleanCode(const std::string& code) {
  const std::string_view trimmed = trimWhitespace(code);
  std::string out;
  for (std::size_t i = 0; i < trimmed.size();) {
    const std::size_t start = i;
    const char32_t c = decodeUTF8At(trimmed, i);
    if (!isWhitespaceOrNewline(c)) out.append(trimmed.substr(start, i - start));
  }
  return out;
}

std::size_t characterCount(std::string_view s) {
  std::size_t n = 0;
  for (std::size_t i = 0; i < s.size(); ++n) decodeUTF8At(s, i);
  return n;
}

std::string pairingFailureText(const std::exception& error) {
  const auto* api = dynamic_cast<const APIError*>(&error);
  if (!api) return error.what();
  switch (api->kind()) {
    case APIError::Kind::network:
      return "Can't reach Corvane. Check your internet connection and try again.";
    case APIError::Kind::unauthorized:
    case APIError::Kind::http: {
      const int status = api->status().value_or(0);
      if (status == 400 || status == 404) {
        return "That code didn't work. It may have expired \u2014 get a fresh one and try again.";
      }
      if (status == 429) return "Too many tries. Wait a few minutes, then try again.";
      // The server's own words or the status, not the call that failed.
      return "Something went wrong (" + api->detail() + ").";
    }
    case APIError::Kind::badResponse:
    case APIError::Kind::insecureServer:
      break;
  }
  return api->description();
}

}  // namespace

AppModel::AppModel(Services services, Options options)
    : s_(std::move(services)), options_(std::move(options)), life_(std::make_shared<Life>()) {
  p_.server = ServerURL::defaultURL();
  p_.now = s_.clock();
}

AppModel::~AppModel() {
  shutdown();
  if (s_.updater) s_.updater->setOnChange(nullptr);
  life_.reset();
}

int AppModel::observe(std::function<void()> onChange) {
  const int key = nextObserver_++;
  observers_[key] = std::move(onChange);
  return key;
}

void AppModel::unobserve(int key) { observers_.erase(key); }

void AppModel::notify() {
  // Observers may unobserve (or observe) while being told.
  const auto observers = observers_;
  for (const auto& [key, onChange] : observers) {
    if (observers_.contains(key)) onChange();
  }
}

template <class Change>
void AppModel::update(Change&& change) {
  const Published before = p_;
  change(p_);
  if (!(before == p_)) notify();
}

template <class Result>
std::function<void(Result)> AppModel::onMain(std::function<void(Result)> done) {
  std::weak_ptr<Life> life = life_;
  MainScheduler& scheduler = s_.scheduler;
  return [life, &scheduler, done = std::move(done)](Result result) {
    auto shared = std::make_shared<Result>(std::move(result));
    scheduler.post([life, done, shared] {
      if (life.lock()) done(std::move(*shared));
    });
  };
}

template <class Result>
void AppModel::offMain(std::function<Result()> work, std::function<void(Result)> done) {
  s_.worker.run([work = std::move(work), back = onMain(std::move(done))] { back(work()); });
}

void AppModel::afterDelay(double seconds, std::function<void()> work) {
  auto id = std::make_shared<MainScheduler::TimerId>(0);
  *id = s_.scheduler.after(seconds, [this, id, work = std::move(work)] {
    std::erase(delays_, *id);
    work();
  });
  delays_.push_back(*id);
}

// Start-up and shutdown.

void AppModel::start() {
  if (started_) return;
  started_ = true;
  if (!options_.previewMode) token_ = s_.tokens.load(TokenStore::deviceTokenKey);
  store_ = storeForAccount();
  const auto savedServer = s_.defaults.getString(DefaultsKey::server);
  const auto server = savedServer ? ServerURL::validate(*savedServer) : std::nullopt;
  const PermissionState automation = options_.sendsThroughMessages
                                         ? Permissions::loadAutomationAnswer(s_.defaults)
                                         : PermissionState::granted;
  update([&](Published& p) {
    p.connected = token_.has_value();
    p.userName = s_.defaults.getString(DefaultsKey::userName);
    p.server = server.value_or(ServerURL::defaultURL());
    p.automation = automation;
    p.automationNeeded = options_.sendsThroughMessages;
    p.addressBook = options_.addressBook;
  });
  if (!options_.previewMode) loadState();
  refreshProbes();
  update([&](Published& p) {
    p.step = currentStep();
    p.launchAtLogin = !options_.previewMode && s_.loginItem.isEnabled()
                          ? true
                          : !s_.defaults.getBool(DefaultsKey::setupCompleted);
    // A registration the user hasn't approved yet reads as off; say why.
    if (!options_.previewMode) p.loginItemError = s_.loginItem.pendingApproval();
    if (options_.qaExpectLink) p.pairing = PairingState::waitingForBrowser(s_.clock());
  });
  if (s_.updater) {
    s_.updater->setOnChange([this] { mirrorUpdater(); });
    mirrorUpdater();
  }
  if (options_.previewMode) return;
  loopRunning_ = true;
  tickTimer_ = s_.scheduler.every(tickSec, [this] { tick(); });
  loopStep();
  reportStatus(true);
  refreshOwnHandles(true);
}

void AppModel::shutdown() {
  loopRunning_ = false;
  for (const auto timer : {tickTimer_, napTimer_, permissionPoll_}) {
    if (timer) s_.scheduler.cancel(timer);
  }
  tickTimer_ = napTimer_ = permissionPoll_ = 0;
  for (const auto timer : delays_) s_.scheduler.cancel(timer);
  delays_.clear();
  cycleStop_.requestStop();
}

void AppModel::mirrorUpdater() {
  update([&](Published& p) {
    p.canCheckForUpdates = s_.updater->canCheckForUpdates();
    p.availableVersion = s_.updater->availableVersion();
  });
}

std::shared_ptr<StateStore> AppModel::storeForAccount() {
  auto inner = s_.makeStore ? s_.makeStore(options_.stateDir)
                            : std::make_shared<FileStateStore>(options_.stateDir);
  return std::make_shared<AccountStateStore>(std::move(inner));
}

void AppModel::loadState() {
  const AgentState state = store_->load();
  update([&](Published& p) {
    p.rosterCount = state.rosterCount;
    p.lastSyncAt = state.lastSyncAt ? parseIsoString(*state.lastSyncAt) : std::nullopt;
  });
}

void AppModel::tick() {
  update([&](Published& p) { p.now = s_.clock(); });
  if (++tickCount_ % ticksPerRefresh != 0) return;
  refreshProbes();
  reportStatus(true);
  refreshOwnHandles(false);
}

// Setup steps.

bool AppModel::moveApplies() const {
  const auto bundle = s_.relocator.bundlePath();
  return bundle && bundle->extension() == ".app" && !s_.relocator.isInApplications();
}

SetupStep AppModel::currentStep() const {
  if (moveApplies() && !s_.defaults.getBool(DefaultsKey::skippedMove)) return SetupStep::move;
  if (!p_.connected) return SetupStep::connect;
  if (!p_.fullDiskAccess) return SetupStep::fullDisk;
  if (p_.automation != PermissionState::granted &&
      !s_.defaults.getBool(DefaultsKey::skippedAutomation)) {
    return SetupStep::automation;
  }
  if (p_.contacts != PermissionState::unknown) return SetupStep::done;
  return s_.defaults.getBool(DefaultsKey::skippedContacts) ? SetupStep::done : SetupStep::contacts;
}

bool AppModel::stepSatisfied(SetupStep step) const {
  switch (step) {
    case SetupStep::move: return !moveApplies();
    case SetupStep::connect: return p_.connected;
    case SetupStep::fullDisk: return p_.fullDiskAccess;
    case SetupStep::automation: return p_.automation == PermissionState::granted;
    case SetupStep::contacts: return p_.contacts != PermissionState::unknown;
    case SetupStep::done: return false;
  }
  return false;
}

void AppModel::advance(SetupStep from) {
  if (p_.step != from || from == SetupStep::done) return;
  auto next = static_cast<SetupStep>(static_cast<int>(from) + 1);
  while (next != SetupStep::done && stepSatisfied(next)) {
    next = static_cast<SetupStep>(static_cast<int>(next) + 1);
  }
  update([&](Published& p) { p.step = next; });
}

void AppModel::showCurrentStep() {
  if (options_.previewMode) return;
  const SetupStep current = currentStep();
  if (p_.step == SetupStep::done || p_.step < current) {
    update([&](Published& p) { p.step = current; });
  }
}

bool AppModel::canGoBack() const {
  if (p_.step == SetupStep::move) return false;
  return p_.step != SetupStep::connect || moveApplies();
}

void AppModel::goBack() {
  if (!canGoBack()) return;
  update([&](Published& p) { p.step = static_cast<SetupStep>(static_cast<int>(p.step) - 1); });
}

void AppModel::skip(SetupStep step) {
  std::string_view key;
  switch (step) {
    case SetupStep::move: key = DefaultsKey::skippedMove; break;
    case SetupStep::automation: key = DefaultsKey::skippedAutomation; break;
    case SetupStep::contacts: key = DefaultsKey::skippedContacts; break;
    default: return;
  }
  s_.defaults.setBool(key, true);
  update([&](Published& p) { p.step = currentStep(); });
}

bool AppModel::setupCompleted() const { return s_.defaults.getBool(DefaultsKey::setupCompleted); }

bool AppModel::needsSetup() const {
  return !p_.connected || !p_.fullDiskAccess || !setupCompleted();
}

void AppModel::finishSetup() {
  // The toggle starts on for a first setup; finishing with it on means it.
  if (p_.launchAtLogin && !options_.previewMode && !s_.loginItem.isEnabled()) {
    setLaunchAtLogin(true);
  }
  s_.defaults.setBool(DefaultsKey::setupCompleted, true);
  notify();  // the menu's "Setup…" follows the flag
}

// Pairing.

std::string AppModel::connectPageURL(const std::string& server) {
  return server + "/connect?client=mac";
}

void AppModel::connectWithBrowser() {
  update([&](Published& p) { p.pairing = PairingState::waitingForBrowser(s_.clock()); });
  if (!options_.previewMode) s_.opener.openURL(connectPageURL(p_.server));
}

void AppModel::pair(const std::string& code, const std::string& server) {
  const std::string cleaned = cleanCode(code);
  const std::size_t length = characterCount(cleaned);
  if (length < 4 || length > 16) {
    update([&](Published& p) { p.pairing = PairingState::failed(std::string(codeTooShortText)); });
    return;
  }
  if (options_.previewMode) return;
  update([&](Published& p) { p.pairing = PairingState::pairing(); });
  const auto api = s_.makeAPI(server, std::nullopt);
  const PairRequest request{cleaned, options_.deviceName, options_.osVersion,
                            "mac-" + options_.appVersion};
  offMain<Outcome<PairResponse>>(
      [api, request] { return attempt<PairResponse>([&] { return api->pair(request); }); },
      [this, server](Outcome<PairResponse> outcome) {
        if (outcome.value && outcome.value->token.empty()) {
          outcome.error = std::make_exception_ptr(
              APIError::badResponse("The server's answer held no device token."));
        }
        if (outcome.error) {
          try {
            std::rethrow_exception(outcome.error);
          } catch (const std::exception& e) {
            update([&](Published& p) { p.pairing = PairingState::failed(pairingFailureText(e)); });
          } catch (...) {
            update([&](Published& p) { p.pairing = PairingState::failed("Pairing failed."); });
          }
          return;
        }
        paired(server, *outcome.value);
      });
}

void AppModel::paired(const std::string& server, const PairResponse& response) {
  s_.tokens.save(TokenStore::deviceTokenKey, response.token);  // kept in memory either way
  token_ = response.token;
  s_.defaults.setString(DefaultsKey::server, server);
  s_.defaults.setString(DefaultsKey::deviceId, response.deviceId);
  if (response.userName) {
    s_.defaults.setString(DefaultsKey::userName, *response.userName);
  } else {
    s_.defaults.remove(DefaultsKey::userName);
  }
  // A new account starts from a fresh agent state. The old account's cycle,
  // if one runs, is stopped and can no longer save.
  stopCycle();
  directoryCache_.reset();
  fingerprints_.reset();
  if (auto* old = dynamic_cast<AccountStateStore*>(store_.get())) old->retire();
  std::error_code ignored;
  std::filesystem::remove(options_.stateDir / FileStateStore::fileName, ignored);
  store_ = storeForAccount();
  lastStatusSent_.reset();
  lastStatusAt_.reset();
  failures_ = 0;
  update([&](Published& p) {
    p.server = server;
    p.userName = response.userName;
    p.connected = true;
    p.rosterCount.reset();
    p.lastSyncAt.reset();
    p.phase = SyncPhase::idle();
    p.pairing = PairingState::success(response.userName);
  });
  reportStatus(true);
  wake();
  afterDelay(pairedAdvanceSec, [this] { advance(SetupStep::connect); });
}

void AppModel::handleLink(std::string_view url) {
  const auto link = ConnectLink::parse(url);
  if (!link) return;
  const std::string server = link->server.value_or(p_.server);
  update([&](Published& p) { p.step = SetupStep::connect; });
  const bool waiting = p_.pairing.kind == PairingState::Kind::waitingForBrowser &&
                       s_.clock() - p_.pairing.sinceMs < linkWindowMs;
  if (waiting && !p_.connected && ServerURL::isTrusted(server)) {
    update([&](Published& p) { p.pendingLink.reset(); });
    pair(link->code, server);
    return;
  }
  update([&](Published& p) { p.pendingLink = link; });
}

void AppModel::confirmPendingLink() {
  if (!p_.pendingLink) return;
  const ConnectLink link = *p_.pendingLink;
  update([&](Published& p) { p.pendingLink.reset(); });
  pair(link.code, link.server.value_or(p_.server));
}

void AppModel::cancelPendingLink() {
  update([&](Published& p) { p.pendingLink.reset(); });
}

void AppModel::disconnect(std::optional<std::string> message) {
  if (!options_.previewMode) s_.tokens.remove(TokenStore::deviceTokenKey);
  token_.reset();
  s_.defaults.remove(DefaultsKey::deviceId);
  stopCycle();
  update([&](Published& p) {
    p.connected = false;
    p.phase = message ? SyncPhase::error(std::move(*message)) : SyncPhase::idle();
    p.pairing = PairingState::idle();
  });
}

// Permissions.

void AppModel::refreshProbes() {
  if (options_.previewMode) return;
  const FullDiskAccess access = s_.probes.probeFullDiskAccess(options_.chatDBPath);
  const PermissionState automation = options_.sendsThroughMessages
                                         ? Permissions::refreshAutomation(s_.probes, s_.defaults)
                                         : PermissionState::granted;
  const PermissionState contacts = s_.probes.contactsAuthorization();
  const bool contactsMoved = contacts != p_.contacts;
  update([&](Published& p) {
    p.fullDiskAccess = access.fullDiskAccess;
    p.messagesReady = access.messagesReady;
    p.automation = automation;
    p.contacts = contacts;
  });
  if (contactsMoved && contactsCache_) contactsCache_->invalidate();
}

void AppModel::refreshPermissions() {
  refreshProbes();
  reportStatus(false);
}

void AppModel::requestAutomation() {
  if (options_.previewMode || p_.automationBusy || !options_.sendsThroughMessages) return;
  update([&](Published& p) { p.automationBusy = true; });
  PermissionProbes& probes = s_.probes;
  offMain<AutomationRequest>([&probes] { return probes.requestAutomation(); },
                             [this](AutomationRequest answer) {
                               Permissions::saveAutomationAnswer(s_.defaults, answer.state);
                               update([&](Published& p) {
                                 p.automationBusy = false;
                                 p.automation = answer.state;
                                 p.automationMessage = answer.message;
                               });
                               reportStatus(true);
                               if (answer.state == PermissionState::granted) {
                                 afterDelay(automationAdvanceSec,
                                            [this] { advance(SetupStep::automation); });
                               }
                             });
}

void AppModel::requestContacts() {
  if (options_.previewMode || p_.contactsBusy || !options_.addressBook) return;
  update([&](Published& p) { p.contactsBusy = true; });
  s_.probes.requestContactsAccess(onMain<bool>([this](bool) {
    const PermissionState contacts = s_.probes.contactsAuthorization();
    update([&](Published& p) {
      p.contactsBusy = false;
      p.contacts = contacts;
    });
    if (contactsCache_) contactsCache_->invalidate();
    reportStatus(true);
    if (contacts == PermissionState::granted) {
      afterDelay(contactsAdvanceSec, [this] { advance(SetupStep::contacts); });
    }
  }));
}

void AppModel::openPrivacyPane(std::string_view anchor) {
  if (!options_.previewMode) s_.probes.openPrivacyPane(anchor);
}

void AppModel::openFullDiskSettings() {
  openPrivacyPane(PrivacyPane::fullDiskAccess);
  update([&](Published& p) { p.openedFullDiskSettingsAt = s_.clock(); });
  stopPermissionPoll();
  if (options_.previewMode) return;
  permissionPoll_ = s_.scheduler.every(fullDiskPollSec, [this] {
    const FullDiskAccess access = s_.probes.probeFullDiskAccess(options_.chatDBPath);
    update([&](Published& p) {
      p.fullDiskAccess = access.fullDiskAccess;
      p.messagesReady = access.messagesReady;
    });
    if (!access.fullDiskAccess) return;
    stopPermissionPoll();
    afterDelay(fullDiskAdvanceSec, [this] { advance(SetupStep::fullDisk); });
  });
}

void AppModel::stopPermissionPoll() {
  if (permissionPoll_) s_.scheduler.cancel(permissionPoll_);
  permissionPoll_ = 0;
}

// The bundle.

std::filesystem::path AppModel::applicationPath() const {
  return s_.relocator.bundlePath().value_or(options_.executablePath);
}

void AppModel::moveToApplications() {
  if (options_.previewMode) return;
  const auto error = s_.relocator.moveToApplications();
  update([&](Published& p) { p.moveError = error; });
}

void AppModel::revealApplication() {
  if (!options_.previewMode) s_.opener.reveal(applicationPath());
}

void AppModel::relaunch() {
  if (!options_.previewMode) s_.relocator.relaunch(applicationPath());
}

// Reports.

AgentStatusRequest AppModel::statusRequest() const {
  return {.appVersion = options_.appVersion,
          .osVersion = options_.osVersion,
          .fullDiskAccess = p_.fullDiskAccess,
          .contactsAccess = p_.contacts,
          .automationAccess = p_.automation,
          .messagesReady = p_.messagesReady,
          .ownHandles = ownHandles_};
}

void AppModel::reportStatus(bool force) {
  if (options_.previewMode || !token_) return;
  const AgentStatusRequest request = statusRequest();
  const std::int64_t now = s_.clock();
  if (!force && lastStatusSent_ == request && lastStatusAt_ && now - *lastStatusAt_ < statusRepeatMs) {
    return;
  }
  const auto api = s_.makeAPI(p_.server, token_);
  const std::uint64_t generation = generation_;
  offMain<Outcome<bool>>(
      [api, request] {
        return attempt<bool>([&] {
          api->postStatus(request);
          return true;
        });
      },
      [this, request, generation](Outcome<bool> outcome) {
        if (generation != generation_) return;  // another account's report
        if (!outcome.error) {
          lastStatusSent_ = request;
          lastStatusAt_ = s_.clock();
          return;
        }
        try {
          std::rethrow_exception(outcome.error);
        } catch (const APIError& e) {
          if (e.kind() == APIError::Kind::unauthorized) disconnect(std::string(disconnectedText));
        } catch (...) {
          // The next tick reports again.
        }
      });
}

std::optional<std::string> AppModel::region() const {
  return options_.region ? options_.region : std::optional(Phone::detectRegion());
}

void AppModel::refreshOwnHandles(bool force) {
  if (options_.previewMode || !p_.connected || ownHandlesBusy_) return;
  const std::int64_t now = s_.clock();
  if (!force && ownHandlesCheckedAt_ && now - *ownHandlesCheckedAt_ < ownHandlesRepeatMs) return;
  ownHandlesCheckedAt_ = now;
  ownHandlesBusy_ = true;
  using Handles = std::optional<std::vector<std::string>>;
  offMain<Handles>(
      [path = options_.chatDBPath, region = region(), now]() -> Handles {
        try {
          return ChatDB::detectOwnHandles(path, region, ownHandlesLookbackDays, now);
        } catch (const std::exception&) {
          return std::nullopt;
        }
      },
      [this](Handles handles) {
        ownHandlesBusy_ = false;
        if (handles == ownHandles_) return;
        ownHandles_ = std::move(handles);
        reportStatus(false);
      });
}

// The sync loop.

void AppModel::loopStep() {
  napTimer_ = 0;
  if (!loopRunning_ || cycleInFlight_) return;
  if (p_.paused || !token_) {
    nap(kIdleNapSec);
    return;
  }
  runCycle();
}

void AppModel::runCycle() {
  cycleInFlight_ = true;
  wakePending_ = false;
  update([&](Published& p) { p.phase = SyncPhase::syncing(); });
  if (!contactsCache_ && s_.loadContacts) {
    contactsCache_ = std::make_shared<ContactsCache>(kContactsTTLSec, s_.loadContacts);
  }
  cycleStop_ = StopSource();
  CycleDeps deps{.api = s_.makeAPI(p_.server, token_),
                 .chatDBPath = options_.chatDBPath,
                 .store = store_,
                 .sender = s_.sender,
                 .contacts = nullptr,
                 .region = region(),
                 .dryRun = false,
                 .log = s_.log,
                 .now = s_.clock,
                 .stop = cycleStop_.token()};
  if (contactsCache_) deps.contacts = [cache = contactsCache_] { return cache->get(); };
  if (!directoryCache_) directoryCache_ = std::make_shared<DirectoryCache>();
  deps.directoryCache = directoryCache_;
  if (!fingerprints_) fingerprints_ = std::make_shared<FingerprintMemo>();
  deps.fingerprints = fingerprints_;
  const std::uint64_t generation = generation_;
  offMain<Outcome<CycleResult>>(
      [deps = std::move(deps)] {
        auto outcome = attempt<CycleResult>([&] { return SyncEngine::runCycle(deps); });
        Heap::releaseFree();  // what the cycle freed, before the app idles
        return outcome;
      },
      [this, generation](Outcome<CycleResult> outcome) {
        cycleFinished(generation, std::move(outcome.value), outcome.error);
      });
}

void AppModel::cycleFinished(std::uint64_t generation, std::optional<CycleResult> result,
                             std::exception_ptr failure) {
  cycleInFlight_ = false;
  if (!loopRunning_) return;
  if (generation != generation_) {
    // The account changed while the cycle ran: nothing of it is published.
    loopStep();
    return;
  }
  if (result) {
    failures_ = 0;
    backoffBaseSec_ = static_cast<int>(std::clamp<std::int64_t>(result->pollIntervalSec, 1, 86400));
    update([&](Published& p) {
      p.rosterCount = result->rosterCount;
      p.lastSyncAt = s_.clock();
      p.phase = SyncPhase::idle();
    });
    nap(backoffBaseSec_);
    return;
  }
  try {
    std::rethrow_exception(failure);
  } catch (const std::exception& e) {
    nap(napAfterFailure(e));
  } catch (...) {
    nap(napAfterFailure(std::runtime_error("unknown failure")));
  }
}

int AppModel::napAfterFailure(const std::exception& error) {
  const CycleFailure kind = classifyCycleFailure(error);
  if (kind == CycleFailure::stopped) {
    update([&](Published& p) { p.phase = SyncPhase::idle(); });
    return 1;
  }
  ++failures_;
  const auto backoff = [&] { return SyncEngine::backoffSec(backoffBaseSec_, failures_); };
  if (s_.log) s_.log->warn(std::string("sync cycle failed: ") + error.what());
  switch (kind) {
    case CycleFailure::databaseMissing:
      update([&](Published& p) {
        p.messagesReady = false;
        p.phase = SyncPhase::error(std::string(messagesMissingText));
      });
      return missingDatabaseNapSec;
    case CycleFailure::noFullDiskAccess:
      update([&](Published& p) {
        p.fullDiskAccess = false;
        p.phase = SyncPhase::idle();
      });
      reportStatus(true);
      return noFullDiskAccessNapSec;
    case CycleFailure::database:
      update([&](Published& p) { p.phase = SyncPhase::error(error.what()); });
      return backoff();
    case CycleFailure::transient:
      update([&](Published& p) { p.phase = SyncPhase::error(std::string(cantReachText)); });
      return backoff();
    case CycleFailure::revoked:
      disconnect(std::string(disconnectedText));
      return 1;
    case CycleFailure::stopped:
    case CycleFailure::other:
      break;
  }
  update([&](Published& p) { p.phase = SyncPhase::error(std::string(syncProblemText)); });
  return backoff();
}

void AppModel::nap(double seconds) {
  if (!loopRunning_) return;
  std::weak_ptr<Life> life = life_;
  if (wakePending_) {
    wakePending_ = false;
    s_.scheduler.post([this, life] {
      if (life.lock()) loopStep();
    });
    return;
  }
  napTimer_ = s_.scheduler.after(std::max(1.0, seconds), [this] { loopStep(); });
}

void AppModel::wake() {
  if (!loopRunning_) return;
  if (cycleInFlight_) {
    wakePending_ = true;
    return;
  }
  if (!napTimer_) return;
  s_.scheduler.cancel(napTimer_);
  loopStep();
}

void AppModel::stopCycle() {
  cycleStop_.requestStop();
  ++generation_;
}

void AppModel::setPaused(bool paused) {
  update([&](Published& p) { p.paused = paused; });
  if (paused) {
    cycleStop_.requestStop();  // at the next stage boundary, never during a send
  } else {
    wake();
  }
}

// Launch at login and updates.

void AppModel::setLaunchAtLogin(bool on) {
  if (options_.previewMode) {
    update([&](Published& p) { p.launchAtLogin = on; });
    return;
  }
  const bool enabled = s_.loginItem.isEnabled();
  std::optional<std::string> error;
  if (on && !enabled) error = s_.loginItem.registerItem();
  if (!on && enabled) error = s_.loginItem.unregisterItem();
  update([&](Published& p) {
    p.loginItemError = error;
    p.launchAtLogin = error ? enabled : on;
  });
}

void AppModel::checkForUpdates() {
  if (s_.updater) s_.updater->checkForUpdates();
}

void AppModel::setPreview(const Published& fields) {
  if (!options_.previewMode) return;
  p_ = fields;
  notify();
}

}  // namespace corvane
