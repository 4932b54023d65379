// The contact book puts names from the user's address book on handles. A
// book is built once and immutable afterwards, so one may be shared between
// threads (the daemon caches it; see SystemContacts for loading).
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/contacts/handle_index.h"

namespace corvane {

// A person's name parts as the address book has them. Each part is trimmed
// of white space and line breaks, and an empty part is stored as absent.
struct ContactName {
  std::optional<std::string> firstName;
  std::optional<std::string> lastName;
  std::optional<std::string> nickname;
  std::optional<std::string> organization;
  // First and last name joined by a space; else the nickname; else the
  // organisation; else absent.
  std::optional<std::string> displayName;

  ContactName() = default;
  ContactName(std::optional<std::string_view> firstName, std::optional<std::string_view> lastName,
              std::optional<std::string_view> nickname,
              std::optional<std::string_view> organization);

  bool operator==(const ContactName&) const = default;
};

// Looks up names by canonical handle (see Phone::normalize).
class ContactBook {
 public:
  ContactBook() = default;
  ContactBook(const ContactBook&) = delete;
  ContactBook& operator=(const ContactBook&) = delete;
  virtual ~ContactBook() = default;

  // The name for a normalised handle, or absent.
  virtual std::optional<ContactName> lookup(std::string_view handle) const = 0;
  // The number of distinct handles the book knows.
  virtual std::size_t count() const = 0;
};

// The book without names: used without Contacts permission, on platforms
// without an address book, and when reading it fails.
class EmptyContactBook final : public ContactBook {
 public:
  std::optional<ContactName> lookup(std::string_view handle) const override;
  std::size_t count() const override;
};

// An in-memory book over address-book cards.
class IndexedContactBook final : public ContactBook {
 public:
  // One card as read from the address book.
  struct Entry {
    ContactName name;
    std::vector<std::string> phones;
    std::vector<std::string> emails;
    bool operator==(const Entry&) const = default;
  };

  // Indexes every phone number and then every e-mail address of each card,
  // in order, normalised in `region` (see Phone::normalize). A handle on two
  // cards names the earlier card; phone numbers also match on their last ten
  // digits. Values that do not normalise are left out.
  IndexedContactBook(const std::vector<Entry>& entries, std::optional<std::string_view> region);

  // `handle` must be normalised; phone numbers written differently still
  // meet on their last ten digits.
  std::optional<ContactName> lookup(std::string_view handle) const override;
  std::size_t count() const override;

 private:
  HandleIndex<ContactName> index_;
};

}  // namespace corvane
