#include "core/sync/contacts_cache.h"

#include <chrono>

namespace corvane {
namespace {

std::int64_t steadyMs() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

}  // namespace

ContactsCache::ContactsCache(double ttlSec, Loader loader, std::function<std::int64_t()> clockMs)
    : ttlSec_(ttlSec),
      loader_(std::move(loader)),
      clockMs_(clockMs ? std::move(clockMs) : std::function<std::int64_t()>(steadyMs)) {}

std::shared_ptr<const ContactBook> ContactsCache::get() {
  std::lock_guard lock(mutex_);
  const std::int64_t now = clockMs_();
  if (loadedAtMs_ && static_cast<double>(now - *loadedAtMs_) < ttlSec_ * 1000.0) return book_;
  book_ = loader_ ? loader_() : nullptr;
  loadedAtMs_ = now;
  return book_;
}

void ContactsCache::invalidate() {
  std::lock_guard lock(mutex_);
  book_.reset();
  loadedAtMs_.reset();
}

}  // namespace corvane
