// SystemContacts: the platform's address book. On macOS it reads the Contacts
// framework; elsewhere there is no address book, so authorisation stays
// `unknown` and every load gives an empty book.
//
// The functions may be called from any thread, the main one included:
// `requestAccess` never waits for the user's answer. `load` takes time that
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

// Asks the platform for access, prompting the user if they have not decided,
// and returns at once. `answered` runs exactly once with whether access was
// granted: on a thread of the platform's choosing, possibly before this
// returns, and possibly long after (the user takes their time). A caller
// that needs the answer on its own thread hops there from `answered`.
void requestAccess(std::function<void(bool granted)> answered);

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
