// Only macOS distinguishes Dock and menu-bar-only applications.
#include "app/platform/activation_policy.h"

namespace corvane {

std::unique_ptr<ActivationPolicy> ActivationPolicy::makeDefault() {
  return std::make_unique<NoActivationPolicy>();
}

}  // namespace corvane
