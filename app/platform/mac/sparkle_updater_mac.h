// The Updater with Sparkle's standard updater as its controller (macOS glue;
// compiled only when the build found Sparkle). Main thread only.
#pragma once

#include <functional>
#include <memory>

#include "app/platform/updater.h"

namespace corvane {

// Starts the standard updater (feed from the bundle's "SUFeedURL") and wires
// its user driver's delegate and its "can check" value to the Updater.
std::unique_ptr<Updater> makeSparkleUpdater(ActivationPolicy& policy,
                                            std::function<bool()> setupWindowVisible);

}  // namespace corvane
