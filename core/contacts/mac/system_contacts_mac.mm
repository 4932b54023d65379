// The Contacts framework behind SystemContacts.
#import <Contacts/Contacts.h>

#include "core/contacts/system_contacts.h"

namespace corvane::SystemContacts {
namespace {

// Absent for nil and for text without a UTF-8 form (a lone surrogate), for
// which UTF8String is NULL. Valid until the enclosing pool drains.
std::optional<std::string_view> text(NSString* s) {
  const char* bytes = s.UTF8String;
  if (bytes == nullptr) return std::nullopt;
  return std::string_view(bytes);
}

IndexedContactBook::Entry entryFrom(CNContact* contact) {
  IndexedContactBook::Entry entry{
      ContactName(text(contact.givenName), text(contact.familyName), text(contact.nickname),
                  text(contact.organizationName)),
      {},
      {}};
  for (CNLabeledValue<CNPhoneNumber*>* phone in contact.phoneNumbers) {
    if (const auto number = text(phone.value.stringValue)) entry.phones.emplace_back(*number);
  }
  for (CNLabeledValue<NSString*>* email in contact.emailAddresses) {
    if (const auto address = text(email.value)) entry.emails.emplace_back(*address);
  }
  return entry;
}

// https://developer.apple.com/documentation/contacts/cncontactstore/enumeratecontacts(with:usingblock:)
// Runs on a worker thread, which has no pool of its own; each contact gets
// one too, so a large address book doesn't pile up until the end.
std::optional<std::vector<IndexedContactBook::Entry>> enumerateContacts() {
  @autoreleasepool {
    CNContactFetchRequest* request = [[CNContactFetchRequest alloc] initWithKeysToFetch:@[
      CNContactGivenNameKey, CNContactFamilyNameKey, CNContactNicknameKey,
      CNContactOrganizationNameKey, CNContactPhoneNumbersKey, CNContactEmailAddressesKey
    ]];
    request.unifyResults = YES;  // linked cards come back as one
    __block std::vector<IndexedContactBook::Entry> entries;
    NSError* error = nil;
    const BOOL ok = [[[CNContactStore alloc] init]
        enumerateContactsWithFetchRequest:request
                                    error:&error
                               usingBlock:^(CNContact* contact, BOOL*) {
                                 @autoreleasepool {
                                   entries.push_back(entryFrom(contact));
                                 }
                               }];
    if (!ok) return std::nullopt;
    return entries;
  }
}

}  // namespace

// https://developer.apple.com/documentation/contacts/cncontactstore/authorizationstatus(for:)
PermissionState authorization() {
  @autoreleasepool {
    return permissionFromStatus(
        static_cast<long>([CNContactStore authorizationStatusForEntityType:CNEntityTypeContacts]));
  }
}

void requestAccess(std::function<void(bool granted)> answered) {
  CNContactStore* store = [[CNContactStore alloc] init];
  // Returns at once; the framework calls the handler on a queue of its own
  // once the user has answered, which may be much later. The block keeps the
  // store alive until then.
  [store requestAccessForEntityType:CNEntityTypeContacts
                  completionHandler:^(BOOL granted, NSError* _Nullable) {
                    (void)store;
                    answered(granted == YES);
                  }];
}

std::shared_ptr<const ContactBook> load(std::optional<std::string_view> region) {
  return loadBook(authorization(), region, enumerateContacts);
}

}  // namespace corvane::SystemContacts
