// The real Corvane executable as a child process, with a home and XDG
// folders of its own under a temporary directory and the offscreen
// platform, so nothing of this machine's settings or display is used.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tests/e2e/child_process.h"
#include "tests/support/temp_dir.h"

namespace corvane::testing {

// Where the build put the executables and Info.plist.
inline std::string binDir() {
  const char* dir = std::getenv("CORVANE_TEST_BIN_DIR");
  return dir ? dir : ".";
}

inline std::unique_ptr<ChildProcess> startCorvane(const TempDir& temp,
                                                  std::vector<std::string> args) {
  for (const char* folder : {"home", "run", "config", "data"}) {
    std::filesystem::create_directories(temp.file(folder));
  }
  ::chmod(temp.file("run").c_str(), 0700);
  auto child = std::make_unique<ChildProcess>(
      binDir() + "/Corvane", std::move(args),
      std::vector<std::string>{"HOME=" + temp.file("home"), "XDG_RUNTIME_DIR=" + temp.file("run"),
                               "XDG_CONFIG_HOME=" + temp.file("config"),
                               "XDG_DATA_HOME=" + temp.file("data"), "QT_QPA_PLATFORM=offscreen",
                               "PATH=/nonexistent"});
  EXPECT_TRUE(child->started()) << child->spawnError();
  return child;
}

struct Outcome {
  std::optional<ExitStatus> status;  // none: it did not finish in time
  std::string out, err;
};

// Runs Corvane to its end.
inline Outcome runCorvane(const TempDir& temp, std::vector<std::string> args) {
  auto child = startCorvane(temp, std::move(args));
  Outcome run;
  run.status = child->wait(std::chrono::seconds(120));
  run.out = child->out();
  run.err = child->err();
  return run;
}

}  // namespace corvane::testing
