// LinkInbox: where "corvane://" links from the system land from the moment
// the application exists, before anything can take them. The get-URL
// Apple event of the link that launched the application comes while launch
// is still under way, long before the delegate and the model are built;
// those links wait here, in arrival order, and reach the receiver once it
// is attached. Later links go to it at once.
//
// Main thread only.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace corvane {

class LinkInbox {
 public:
  using Receiver = std::function<void(const std::string& url)>;

  LinkInbox() = default;
  LinkInbox(const LinkInbox&) = delete;
  LinkInbox& operator=(const LinkInbox&) = delete;

  // A link from the system: to the receiver, or kept until there is one.
  void receive(const std::string& url);

  // Hands the waiting links over in order, then every later one as it comes.
  // A link received while they are handed over follows them. Once only.
  void attach(Receiver receiver);

  const std::vector<std::string>& waiting() const { return waiting_; }

 private:
  Receiver receiver_;
  std::vector<std::string> waiting_;
};

}  // namespace corvane
