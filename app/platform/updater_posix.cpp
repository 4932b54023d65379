// Outside macOS there is no update framework: no controller, no checks.
#include "app/platform/updater.h"

namespace corvane {

std::unique_ptr<Updater> Updater::makeDefault(ActivationPolicy& policy,
                                              std::function<bool()> setupWindowVisible) {
  return std::make_unique<Updater>(nullptr, policy, std::move(setupWindowVisible));
}

}  // namespace corvane
