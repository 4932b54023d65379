// The Contacts framework behind SystemContacts.
#import <Contacts/Contacts.h>

#include "core/contacts/system_contacts.h"

namespace corvane::SystemContacts {
namespace {

std::optional<std::string_view> text(NSString* s) {
  if (s == nil) return std::nullopt;
  return std::string_view(s.UTF8String);
}

IndexedContactBook::Entry entryFrom(CNContact* contact) {
  IndexedContactBook::Entry entry{
      ContactName(text(contact.givenName), text(contact.familyName), text(contact.nickname),
                  text(contact.organizationName)),
      {},
      {}};
  for (CNLabeledValue<CNPhoneNumber*>* phone in contact.phoneNumbers) {
    entry.phones.emplace_back(phone.value.stringValue.UTF8String);
  }
  for (CNLabeledValue<NSString*>* email in contact.emailAddresses) {
    entry.emails.emplace_back(email.value.UTF8String);
  }
  return entry;
}

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
                                 entries.push_back(entryFrom(contact));
                               }];
    if (!ok) return std::nullopt;
    return entries;
  }
}

}  // namespace

PermissionState authorization() {
  return permissionFromStatus(
      static_cast<long>([CNContactStore authorizationStatusForEntityType:CNEntityTypeContacts]));
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
