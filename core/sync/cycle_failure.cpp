#include "core/sync/cycle_failure.h"

#include "core/api/api_error.h"
#include "core/chatdb/chat_db.h"

namespace corvane {

CycleFailure classifyCycleFailure(const std::exception& error) {
  if (dynamic_cast<const CycleStopped*>(&error)) return CycleFailure::stopped;
  if (const auto* api = dynamic_cast<const APIError*>(&error)) {
    if (api->kind() == APIError::Kind::unauthorized) return CycleFailure::revoked;
    if (api->isTransient()) return CycleFailure::transient;
    return CycleFailure::other;
  }
  if (const auto* open = dynamic_cast<const ChatDB::OpenError*>(&error)) {
    switch (open->kind()) {
      case ChatDB::OpenError::Kind::missing: return CycleFailure::databaseMissing;
      case ChatDB::OpenError::Kind::fullDiskAccess: return CycleFailure::noFullDiskAccess;
      case ChatDB::OpenError::Kind::other: return CycleFailure::database;
    }
  }
  return CycleFailure::other;
}

}  // namespace corvane
