// Constructs the service resource's object as start-up does, inside the private root, and
// prints its settings once its worker has ended: "enabled 1 timeout 300".
#include <cstdio>

#include "frame/configuration.h"
#include "frame/logger.h"
#include "service/session_service.h"

int main() {
    using namespace session_service;

    Logger log;
    log.init(configurationFile);
    logger = &log;
    const SessionService service;
    std::printf("enabled %d timeout %d\n", service.isEnabled() ? 1 : 0, service.sessionTimeout());
    return 0;
}
