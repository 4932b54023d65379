// The Updater on macOS: Sparkle's when this build has Sparkle and a feed
// (CORVANE_UPDATE_FEED_URL, also the bundle's "SUFeedURL") and the
// application runs from a bundle; without a controller otherwise.
#include "app/platform/app_bundle.h"
#include "app/platform/updater.h"

#if CORVANE_HAVE_SPARKLE
#include "app/platform/mac/sparkle_updater_mac.h"
#endif

namespace corvane {

std::unique_ptr<Updater> Updater::makeDefault(ActivationPolicy& policy,
                                              std::function<bool()> setupWindowVisible) {
#if CORVANE_HAVE_SPARKLE
  const auto bundle = AppBundle::runningPath();
  if (bundle && shouldStart(bundle->string(), CORVANE_UPDATE_FEED_URL)) {
    return makeSparkleUpdater(policy, std::move(setupWindowVisible));
  }
#endif
  return std::make_unique<Updater>(nullptr, policy, std::move(setupWindowVisible));
}

}  // namespace corvane
