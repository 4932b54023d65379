// ActivationPolicy: whether the application shows in the Dock (regular)
// or only in the menu bar (accessory). Only macOS has the distinction; the
// other systems' implementation does nothing. Main thread only.
#pragma once

#include <memory>

namespace corvane {

class ActivationPolicy {
 public:
  ActivationPolicy() = default;
  ActivationPolicy(const ActivationPolicy&) = delete;
  ActivationPolicy& operator=(const ActivationPolicy&) = delete;
  virtual ~ActivationPolicy() = default;

  virtual void setRegular() = 0;
  virtual void setAccessory() = 0;

  // This system's policy: NSApp's on macOS, a NoActivationPolicy elsewhere.
  static std::unique_ptr<ActivationPolicy> makeDefault();
};

// For systems without a Dock, and for screenshots.
class NoActivationPolicy final : public ActivationPolicy {
 public:
  void setRegular() override {}
  void setAccessory() override {}
};

}  // namespace corvane
