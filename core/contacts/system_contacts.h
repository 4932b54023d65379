// SystemContacts: the platform's address book. On macOS it reads the Contacts
// framework; elsewhere there is no address book, so authorisation stays
// `unknown` and every load gives an empty book.
//
// The functions may be called from any thread. `requestAccess` may show a
// system prompt and blocks until the user answers; `load` takes time that
// grows with the address book, which is why callers cache its result.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "core/contacts/contact_book.h"
#include "core/protocol/wire_types.h"

namespace corvane::SystemContacts {

// Whether the agent may read the address book. Never prompts.
PermissionState authorization();

// Asks the platform for access (prompting the user if they have not decided)
// and returns whether it was granted.
bool requestAccess();

// The address book indexed for `region` (see IndexedContactBook); an empty
// book without permission or when reading fails. Never prompts, never throws.
std::shared_ptr<const ContactBook> load(std::optional<std::string_view> region);

// Portable decisions the platform glue defers to.

// The permission for the platform's raw authorisation status: 0 not
// determined, 1 restricted, 2 denied, 3 authorised, and any later, wider
// status (such as limited access) counts as granted.
PermissionState permissionFromStatus(long status);

// Reads every card; absent when reading fails.
using Enumerate = std::function<std::optional<std::vector<IndexedContactBook::Entry>>()>;

// The book `load` returns: empty without asking `enumerate` unless
// `permission` is granted, and empty when `enumerate` fails.
std::shared_ptr<const ContactBook> loadBook(PermissionState permission,
                                            std::optional<std::string_view> region,
                                            const Enumerate& enumerate);

}  // namespace corvane::SystemContacts
