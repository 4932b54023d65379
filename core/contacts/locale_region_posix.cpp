// The locale comes from the environment, as the C library reads it.
#include "core/contacts/phone.h"

namespace corvane::Phone {

std::optional<std::string> currentLocaleRegion() { return posixLocaleRegion(processEnvironment); }

}  // namespace corvane::Phone
