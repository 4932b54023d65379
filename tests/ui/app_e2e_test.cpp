// The application end to end, in process: the real model on the Qt event
// loop with worker threads, the real API client against corvane-devserver on
// loopback, the real setup window and menu. A user types a pairing code; the
// Mac pairs, syncs, and the menu says so.
#include <gtest/gtest.h>

#include <QLineEdit>
#include <QMenu>
#include <QTest>
#include <memory>

#include "app/model/app_model.h"
#include "app/model/thread_worker.h"
#include "app/ui/qt_scheduler.h"
#include "app/ui/setup_window.h"
#include "app/ui/tray_menu.h"
#include "core/api/api_client.h"
#include "core/protocol/iso_time.h"
#include "tests/e2e/headless_fixture.h"
#include "tests/support/app_model_rig.h"
#include "tests/ui/ui_helpers.h"

namespace corvane {
namespace {

using testing::child;
using testing::click;

constexpr const char* kRosterHandle = "+14155550100";

TEST(AppEndToEndTest, PairingByCodeSyncsAndTheMenuShowsIt) {
  const char* binDir = std::getenv("CORVANE_TEST_BIN_DIR");
  ASSERT_NE(binDir, nullptr);
  // Declared before the rig: the model goes first, then the threads.
  QtMainScheduler scheduler;
  ThreadWorker worker;
  testing::AppModelRig rig;
  rig.mainScheduler = &scheduler;
  rig.worker = &worker;
  rig.clock = nowMs;
  rig.makeAPI = [](const std::string& url, std::optional<std::string> token) {
    return std::make_shared<APIClient>(url, std::move(token), "corvane-mac/test");
  };
  rig.options.chatDBPath = rig.dir.file("recent.db");
  {
    chatdbgen::ChatDbBuilder db(rig.options.chatDBPath);
    db.message(db.oneToOne(kRosterHandle),
               chatdbgen::MessageSpec{.text = "see you at six", .dateMs = nowMs() - 60000});
  }
  e2e::DevServer server(std::string(binDir) + "/corvane-devserver",
                        {"--pair-code", "DEV12345", "--roster", kRosterHandle}, {});
  ASSERT_FALSE(server.url().empty()) << server.failure();
  rig.defaults.setString(DefaultsKey::server, server.url());
  AppModel& model = rig.model();
  SetupWindow window(model, [] {});
  TrayMenu tray(model, QIcon(), {.showSetup = [] {}, .quit = [] {}});
  model.start();
  window.show();
  ASSERT_EQ(model.published().step, SetupStep::connect);
  EXPECT_EQ(tray.menu()->actions().front()->text().toStdString(), "Not connected");

  click(window, "codeToggle");
  QTest::keyClicks(qobject_cast<QLineEdit*>(child(window, "codeField")), "DEV 12345");
  click(window, "codeConnect");

  const bool synced =
      QTest::qWaitFor([&] { return model.published().lastSyncAt.has_value(); }, 20'000);
  ASSERT_TRUE(synced) << "phase: " << model.published().phase.text;
  EXPECT_TRUE(model.published().connected);
  EXPECT_EQ(model.published().userName, "Developer");
  const std::string status = tray.menu()->actions().front()->text().toStdString();
  EXPECT_EQ(status.rfind("Syncing 1 person \u00B7 last sync ", 0), 0u) << status;
  EXPECT_TRUE(rig.tokens.load(TokenStore::deviceTokenKey).has_value());
  EXPECT_EQ(server.state()["messages"].size(), 1u) << server.state().dump();
  model.shutdown();
}

}  // namespace
}  // namespace corvane
