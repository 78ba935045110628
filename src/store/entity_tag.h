// Entity tags of the resources that this service changes.
#pragma once

#include <string>

struct redisContext;

namespace session_service {

// Stamps the resource's "@odata.etag" with the wall clock's milliseconds. Reports nothing.
void updateEtag(redisContext* connection, const std::string& resourceKey);

}  // namespace session_service
