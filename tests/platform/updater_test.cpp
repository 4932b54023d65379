#include "app/platform/updater.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace corvane {
namespace {

class RecordingPolicy final : public ActivationPolicy {
 public:
  void setRegular() override { calls.push_back("regular"); }
  void setAccessory() override { calls.push_back("accessory"); }
  std::vector<std::string> calls;
};

class CountingController final : public UpdateController {
 public:
  explicit CountingController(int& checks) : checks_(checks) {}
  void checkForUpdates() override { ++checks_; }

 private:
  int& checks_;
};

struct Harness {
  explicit Harness(bool withController) {
    updater = std::make_unique<Updater>(
        withController ? std::make_unique<CountingController>(checks) : nullptr, policy,
        [this] { return setupWindowVisible; });
    updater->setOnChange([this] { ++changes; });
  }
  RecordingPolicy policy;
  int checks = 0;
  int changes = 0;
  bool setupWindowVisible = false;
  std::unique_ptr<Updater> updater;
};

// Without a controller (no framework in the build) nothing can be checked.
TEST(UpdaterTest, CanCheckMirrorsTheFrameworkAndChecksGoToTheController) {
  for (const bool withController : {true, false}) {
    SCOPED_TRACE(withController ? "with a controller" : "without");
    Harness h(withController);
    EXPECT_EQ(h.updater->hasController(), withController);
    EXPECT_FALSE(h.updater->canCheckForUpdates());
    const struct {
      bool value;
      int changesAfter;
    } steps[] = {{true, 1}, {true, 1}, {false, 2}, {true, 3}};
    for (const auto& s : steps) {
      h.updater->setCanCheckForUpdates(s.value);
      EXPECT_EQ(h.updater->canCheckForUpdates(), s.value && withController);
      EXPECT_EQ(h.changes, withController ? s.changesAfter : 0);
    }
    h.updater->checkForUpdates();
    EXPECT_EQ(h.checks, withController ? 1 : 0);
  }
}

TEST(UpdaterTest, UpdateSessionsSetTheVersionAndTheDockIcon) {
  using Event = std::function<void(Harness&)>;
  const Event scheduled = [](Harness& h) { h.updater->willHandleShowingUpdate("2.1", false); };
  const Event userStarted = [](Harness& h) { h.updater->willHandleShowingUpdate("2.1", true); };
  const Event attention = [](Harness& h) { h.updater->didReceiveUserAttention(); };
  const Event finish = [](Harness& h) { h.updater->willFinishUpdateSession(); };
  const struct {
    const char* name;
    bool setupWindowVisible;
    std::vector<Event> events;
    std::optional<std::string> version;
    std::vector<std::string> policy;
    int changes;  // announced only when the version changes
  } cases[] = {
      {"a scheduled check names the version", false, {scheduled}, "2.1", {"regular"}, 1},
      {"the same version again", false, {scheduled, scheduled}, "2.1", {"regular", "regular"}, 1},
      {"a check the user started never does", false, {userStarted}, std::nullopt, {"regular"}, 0},
      {"the user looking clears it", false, {scheduled, attention}, std::nullopt, {"regular"}, 2},
      {"the session's end clears it and leaves the Dock", false, {scheduled, finish},
       std::nullopt, {"regular", "accessory"}, 2},
      {"the setup window keeps the Dock icon", true, {scheduled, finish}, std::nullopt,
       {"regular"}, 2},
      {"a user check after a scheduled one keeps the version", false, {scheduled, userStarted},
       "2.1", {"regular", "regular"}, 1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Harness h(true);
    h.setupWindowVisible = c.setupWindowVisible;
    for (const auto& e : c.events) e(h);
    EXPECT_EQ(h.updater->availableVersion(), c.version);
    EXPECT_EQ(h.policy.calls, c.policy);
    EXPECT_EQ(h.changes, c.changes);
  }
}

TEST(UpdaterTest, OnlyABundleWithAFeedStartsTheFramework) {
  const struct {
    const char* bundle;
    const char* feed;
    bool start;
  } cases[] = {
      {"/Applications/Corvane.app", "https://corvane.app/appcast.xml", true},
      {"/Applications/Corvane.app/", "https://corvane.app/appcast.xml", true},
      {"/Applications/Corvane.app", "", false},
      {"/opt/Corvane.application", "https://corvane.app/appcast.xml", false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Updater::shouldStart(c.bundle, c.feed), c.start) << c.bundle << " " << c.feed;
  }
}

}  // namespace
}  // namespace corvane
