// MessageSender: delivers one approved text to one handle. The sync cycle and
// the self channel hold a sender through this interface and turn its result
// into an acknowledgement. send() never throws: every failure is a SendResult.
// A sender handles one send at a time.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace corvane {

struct SendResult {
  bool ok = false;                     // Messages accepted the text
  std::optional<std::string> service;  // "iMessage" or "SMS"
  bool verified = false;               // found in the Messages database afterwards
  std::optional<std::string> error;    // why not ok (or a warning)
  bool operator==(const SendResult&) const = default;
};

class MessageSender {
 public:
  MessageSender() = default;
  virtual ~MessageSender() = default;
  MessageSender(const MessageSender&) = delete;
  MessageSender& operator=(const MessageSender&) = delete;

  virtual SendResult send(const std::string& handle, const std::string& text) = 0;
};

// The comparable form of a message text: U+FFFC removed, runs of white space
// and line breaks collapsed to single blanks, no blanks at either end.
std::string normalizeSentText(std::string_view text);

}  // namespace corvane
