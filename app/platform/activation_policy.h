// ActivationPolicy: whether the application shows in the Dock (regular)
// or only in the menu bar (accessory). Only macOS has the distinction; the
// other systems' implementation does nothing. Main thread only.
#pragma once

namespace corvane {

class ActivationPolicy {
 public:
  ActivationPolicy() = default;
  ActivationPolicy(const ActivationPolicy&) = delete;
  ActivationPolicy& operator=(const ActivationPolicy&) = delete;
  virtual ~ActivationPolicy() = default;

  virtual void setRegular() = 0;
  virtual void setAccessory() = 0;
};

}  // namespace corvane
