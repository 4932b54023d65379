#include "app/headless/headless_runner.h"

#include <filesystem>
#include <system_error>

#include "core/api/api_client.h"
#include "core/chatdb/chat_db.h"
#include "core/contacts/phone.h"
#include "core/contacts/system_contacts.h"
#include "core/protocol/app_info.h"
#include "core/protocol/iso_time.h"
#include "core/protocol/server_url.h"
#include "core/protocol/wire_json.h"
#include "core/send/apple_script_sender.h"
#include "core/send/fake_sender.h"
#include "core/sync/sync_engine.h"

namespace corvane {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kTokenVariable = "QUODDLE_TOKEN";
constexpr std::int64_t kStatusLookbackDays = 180;

void print(std::FILE* out, const std::string& text) {
  const std::string line = text + "\n";
  std::fwrite(line.data(), 1, line.size(), out);
  std::fflush(out);
}

std::string userAgent() { return "corvane-mac/" + AppInfo::version(); }

std::string upper(std::string s) {
  for (char& c : s) {
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  }
  return s;
}

// Whether two directories are one. A path that can't be examined (a parent
// without search permission, a symlink loop, an overlong name) is compared as
// written: the flows that use it report the failure in their own words.
bool samePlace(const fs::path& a, const fs::path& b) {
  std::error_code errorA, errorB;
  const fs::path realA = fs::weakly_canonical(a, errorA);
  const fs::path realB = fs::weakly_canonical(b, errorB);
  if (!errorA && !errorB) return realA == realB;
  const auto written = [](const fs::path& p) {
    std::error_code ignored;
    const fs::path absolute = fs::absolute(p, ignored);
    return ((absolute.empty() ? p : absolute) / "").lexically_normal();
  };
  return written(a) == written(b);
}

// Everything the one-shot flows and the daemon share, resolved once.
struct Setup {
  std::string server;
  fs::path home;
  bool defaultHome;
  std::string chatDBPath;
  std::string region;
};

int pair(const Setup& setup, HeadlessEnvironment& env, const std::string& code) {
  APIClient client(setup.server, std::nullopt, userAgent());
  PairResponse response;
  try {
    response = client.pair({code, AppInfo::deviceName(), AppInfo::osVersion(),
                            "mac-" + AppInfo::version()});
  } catch (const std::exception& e) {
    env.log->error(std::string("pairing failed: ") + e.what());
    return 1;
  }
  if (!setup.defaultHome) {
    // Test homes never touch the real credentials.
    print(env.out, encodeJSON(response));
    return 0;
  }
  env.tokens.save(TokenStore::deviceTokenKey, response.token);
  env.defaults.setString(DefaultsKey::server, setup.server);
  env.defaults.setString(DefaultsKey::deviceId, response.deviceId);
  if (response.userName) {
    env.defaults.setString(DefaultsKey::userName, *response.userName);
  } else {
    env.defaults.remove(DefaultsKey::userName);
  }
  print(env.out, "paired as " + response.userName.value_or("(no name)") + " \u2014 device " +
                     response.deviceId + "; token saved to the Keychain");
  return 0;
}

std::optional<std::string> findToken(const CommandLine& args, HeadlessEnvironment& env) {
  if (auto token = args.value("--token")) return token;
  if (auto token = env.getenv(kTokenVariable)) return token;  // even when empty
  return env.tokens.load(TokenStore::deviceTokenKey);
}

int reportStatus(APIClient& client, const Setup& setup, HeadlessEnvironment& env) {
  const FullDiskAccess access = env.probes.probeFullDiskAccess(setup.chatDBPath);
  AgentStatusRequest request{
      .appVersion = AppInfo::version(),
      .osVersion = AppInfo::osVersion(),
      .fullDiskAccess = access.fullDiskAccess,
      .contactsAccess = env.probes.contactsAuthorization(),
      .automationAccess = Permissions::refreshAutomation(env.probes, env.defaults),
      .messagesReady = access.messagesReady,
      .ownHandles = ChatDB::detectOwnHandles(setup.chatDBPath, setup.region, kStatusLookbackDays,
                                             nowMs()),
  };
  try {
    client.postStatus(request);
  } catch (const std::exception& e) {
    env.log->error(std::string("status report failed: ") + e.what());
    return 1;
  }
  print(env.out, "status reported: " + encodeJSON(request));
  return 0;
}

int runDaemon(const CommandLine& args, const Setup& setup, HeadlessEnvironment& env,
              const std::string& token) {
  const auto log = env.log;
  auto store = std::make_shared<FileStateStore>(setup.home);
  std::shared_ptr<MessageSender> sender;
  if (args.flag("--fake-send")) {
    // The home holds the state, so it is made private as the store makes it;
    // a failure here is the first save's to report.
    try {
      store->prepareDirectory();
    } catch (const std::system_error&) {
    }
    sender = std::make_shared<FakeSender>(FakeSender::Options{
        .log = [log](const std::string& line) { log->info(line); },
        .logFile = (setup.home / "fake-sent.jsonl").string(),
        .nowMs = nowMs});
  } else {
    AppleScriptSender::Options options;
    options.chatDBPath = setup.chatDBPath;
    options.verifyTimeoutSec = 10.0;
    options.settleSec = 2.0;
    options.pollSec = 0.5;
    options.log = [log](const std::string& line) { log->info(line); };
    sender = std::make_shared<AppleScriptSender>(std::move(options));
  }

  CycleDeps deps{.api = std::make_shared<APIClient>(setup.server, token, userAgent()),
                 .chatDBPath = setup.chatDBPath,
                 .store = store,
                 .sender = sender,
                 .contacts = nullptr,
                 .region = setup.region,
                 .dryRun = args.flag("--dry-run"),
                 .log = log,
                 .now = nowMs};
  SyncEngine::DaemonOptions options;
  options.once = args.flag("--once");
  if (args.flag("--contacts")) {
    const std::string region = setup.region;
    options.loadContacts = [region] { return SystemContacts::load(region); };
  }
  log->info("Corvane " + AppInfo::version() + " headless \u2192 " + setup.server + ", chat.db " +
            setup.chatDBPath + ", state " + store->path().string());
  return SyncEngine::runDaemon(std::move(deps), std::move(options), env.stop);
}

}  // namespace

int runHeadless(const CommandLine& args, HeadlessEnvironment& env) {
  if (args.flag("--help") || args.flag("-h")) {
    print(env.out, kUsageText);
    return 0;
  }

  Setup setup;
  if (const auto given = args.value("--server")) {
    const auto valid = ServerURL::validate(*given);
    if (!valid) {
      env.log->error("--server must be https:// (or http://localhost for development): " + *given);
      return kUsageExitCode;
    }
    setup.server = *valid;
  } else {
    setup.server = ServerURL::defaultURL();
  }

  const fs::path defaultHome = FileStateStore::defaultDirectory();
  const auto home = args.value("--home");
  setup.home = home ? fs::path(*home) : defaultHome;
  setup.defaultHome = !home || samePlace(setup.home, defaultHome);
  auto chatDB = args.value("--chat-db");
  if (!chatDB) chatDB = env.defaults.getString(DefaultsKey::chatDBPath);
  setup.chatDBPath = chatDB.value_or(ChatDB::defaultPath());
  const auto region = args.value("--region");
  setup.region = region ? upper(*region) : Phone::detectRegion();

  if (const auto code = args.value("--pair")) return pair(setup, env, *code);

  const auto token = findToken(args, env);
  if (!token) {
    env.log->error("Not connected. Pass --token, or connect in the app first.");
    return 2;
  }
  if (args.flag("--status")) {
    APIClient client(setup.server, *token, userAgent());
    return reportStatus(client, setup, env);
  }
  return runDaemon(args, setup, env, *token);
}

}  // namespace corvane
