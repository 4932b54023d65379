// Made-up people and words for generated Messages databases: handles written
// the many ways devices store them, everyday texts with some emoji, notes to
// self, attachments as the database describes them, and message GUIDs. Every
// choice is drawn from the Random handed in, so a seed fixes the output.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "tools/chatdb-gen/chat_db_builder.h"
#include "tools/chatdb-gen/random.h"

namespace corvane::chatdbgen {

struct PersonHandle {
  std::string id;                      // as stored in handle.id
  std::optional<std::string> country;  // handle.country, lower case; absent for e-mail
  bool isPhone = true;
};

// The n-th made-up correspondent: distinct n give distinct people. About
// seven in ten are North American numbers in assorted spellings, one in ten
// is abroad and two are e-mail addresses in mixed case.
PersonHandle personHandle(std::uint64_t n, Random& random);

// A short everyday text; now and then several sentences or a link.
std::string messageText(Random& random);
// A caption sent along with a photo or file.
std::string captionText(Random& random);
// Something a person writes to themselves.
std::string noteText(Random& random);
// A group's display name, or absent for an unnamed group.
std::optional<std::string> groupName(Random& random);

// One attachment of an ordinary message: photos most often, then videos,
// voice messages, stickers and files.
AttachmentSpec attachmentSpec(Random& random);
// The link-preview payload the Messages application adds to a link.
AttachmentSpec linkPreviewSpec(Random& random);

// An upper-case 8-4-4-4-12 hex GUID.
std::string makeGuid(Random& random);

// The tap-back text as the Messages application writes it ("Loved “hi”").
std::string reactionText(std::int64_t code, const std::string& targetText, Random& random);

}  // namespace corvane::chatdbgen
