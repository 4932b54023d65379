#include "app/ui/link_inbox.h"

#include <utility>

namespace corvane {

void LinkInbox::receive(const std::string& url) {
  // Until the waiting ones are all out, a new one queues behind them.
  if (!receiver_ || !waiting_.empty()) {
    waiting_.push_back(url);
    return;
  }
  receiver_(url);
}

void LinkInbox::attach(Receiver receiver) {
  if (receiver_) return;
  receiver_ = std::move(receiver);
  // By index: the receiver may add to the list while it is handled.
  for (std::size_t i = 0; i < waiting_.size(); ++i) {
    const std::string url = waiting_[i];
    receiver_(url);
  }
  waiting_.clear();
}

}  // namespace corvane
