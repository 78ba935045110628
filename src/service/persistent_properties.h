// The properties of the service resource that outlive the store: a text file of
// NAME=VALUE lines, provided by the installation. Empty lines and lines that start with
// '#' are skipped by the load.
#pragma once

#include "store/commands.h"

namespace session_service {

inline constexpr const char* propertyFile = "/var/nginx/SessionPersistentProp.conf";

// Writes every property of the file into the service resource; a value of several words
// reaches the store as several arguments. A missing file is no error; other failures are
// logged at debug level. Called by start-up, before the workers exist.
void loadPersistentProperties(redisContext* connection);

// Rewrites the file in place: every line in which a property's name occurs becomes
// NAME=VALUE with the new value, the others stay. The file is on the disk when this returns. A
// property that no line mentions is not written, and a missing file is not created. Failures
// are not reported. One caller at a time.
void savePersistentProperties(const FieldMap& properties);

}  // namespace session_service
