// Platforms without an address book.
#include "core/contacts/system_contacts.h"

namespace corvane::SystemContacts {

PermissionState authorization() { return PermissionState::unknown; }

void requestAccess(std::function<void(bool granted)> answered) { answered(false); }

std::shared_ptr<const ContactBook> load(std::optional<std::string_view>) {
  return std::make_shared<EmptyContactBook>();
}

}  // namespace corvane::SystemContacts
