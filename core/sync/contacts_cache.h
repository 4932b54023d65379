// ContactsCache: keeps a loaded address book for a while, because loading it
// takes time proportional to its size and it rarely changes. Safe to call
// from any thread; callers serialise on the cache's lock.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>

#include "core/contacts/contact_book.h"

namespace corvane {

class ContactsCache {
 public:
  using Loader = std::function<std::shared_ptr<const ContactBook>()>;

  // `clockMs` is a monotonic clock (the steady clock by default).
  ContactsCache(double ttlSec, Loader loader, std::function<std::int64_t()> clockMs = {});
  ContactsCache(const ContactsCache&) = delete;
  ContactsCache& operator=(const ContactsCache&) = delete;

  // The cached book while it is younger than the TTL, else a freshly loaded
  // one; nullptr when there is no loader.
  std::shared_ptr<const ContactBook> get();
  // Forgets the book so the next get() loads again.
  void invalidate();

 private:
  const double ttlSec_;
  const Loader loader_;
  const std::function<std::int64_t()> clockMs_;
  std::mutex mutex_;
  std::optional<std::int64_t> loadedAtMs_;
  std::shared_ptr<const ContactBook> book_;
};

}  // namespace corvane
