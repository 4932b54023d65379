#include "core/contacts/contact_book.h"

#include "core/contacts/phone.h"
#include "core/text/unicode.h"

namespace corvane {
namespace {

std::optional<std::string> trimmedOrAbsent(std::optional<std::string_view> s) {
  if (!s) return std::nullopt;
  const std::string_view trimmed = trimWhitespace(*s);
  if (trimmed.empty()) return std::nullopt;
  return std::string(trimmed);
}

}  // namespace

ContactName::ContactName(std::optional<std::string_view> firstName,
                         std::optional<std::string_view> lastName,
                         std::optional<std::string_view> nickname,
                         std::optional<std::string_view> organization)
    : firstName(trimmedOrAbsent(firstName)),
      lastName(trimmedOrAbsent(lastName)),
      nickname(trimmedOrAbsent(nickname)),
      organization(trimmedOrAbsent(organization)) {
  std::string full = this->firstName.value_or("");
  if (this->lastName) full += (full.empty() ? "" : " ") + *this->lastName;
  if (!full.empty()) {
    displayName = std::move(full);
  } else {
    displayName = this->nickname ? this->nickname : this->organization;
  }
}

std::optional<ContactName> EmptyContactBook::lookup(std::string_view) const { return std::nullopt; }

std::size_t EmptyContactBook::count() const { return 0; }

IndexedContactBook::IndexedContactBook(const std::vector<Entry>& entries,
                                       std::optional<std::string_view> region) {
  for (const Entry& entry : entries) {
    for (const auto* values : {&entry.phones, &entry.emails}) {
      for (const std::string& value : *values) {
        if (auto handle = Phone::normalize(value, region))
          index_.set(std::move(*handle), entry.name);
      }
    }
  }
}

std::optional<ContactName> IndexedContactBook::lookup(std::string_view handle) const {
  return index_.get(handle);
}

std::size_t IndexedContactBook::count() const { return index_.count(); }

}  // namespace corvane
