// Outside macOS there are no privacy services: Automation has no answer and
// there are no System Settings to open.
#include "app/platform/permissions.h"

namespace corvane {
namespace {

class NoPrivacyServices final : public PrivacyServices {
 public:
  std::optional<int> automationStatus(std::string_view) override { return std::nullopt; }
  void openURL(const std::string&) override {}
};

}  // namespace

std::unique_ptr<PrivacyServices> PrivacyServices::makeDefault() {
  return std::make_unique<NoPrivacyServices>();
}

}  // namespace corvane
