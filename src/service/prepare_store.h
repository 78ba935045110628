// The first initialization of the service's resources in the store.
#pragma once

namespace session_service {

// Brings the resources up when the store was started empty, over a connection of its own: loads
// the persistent properties, stamps the entity tags and registers the channels for logins and
// logouts. A store that has been initialized already is left as it is. False, with the reason
// logged, when the store cannot be reached or does not take the channels.
bool prepareStore();

}  // namespace session_service
