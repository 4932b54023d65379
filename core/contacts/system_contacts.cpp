#include "core/contacts/system_contacts.h"

namespace corvane::SystemContacts {

PermissionState permissionFromStatus(long status) {
  if (status == 1 || status == 2) return PermissionState::denied;
  if (status >= 3) return PermissionState::granted;
  return PermissionState::unknown;
}

std::shared_ptr<const ContactBook> loadBook(PermissionState permission,
                                            std::optional<std::string_view> region,
                                            const Enumerate& enumerate) {
  if (permission == PermissionState::granted) {
    // A contact book is never essential to syncing, so a failed read is an empty book.
    if (const auto entries = enumerate()) {
      return std::make_shared<IndexedContactBook>(*entries, region);
    }
  }
  return std::make_shared<EmptyContactBook>();
}

}  // namespace corvane::SystemContacts
