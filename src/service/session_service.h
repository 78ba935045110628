// The service resource. Its constructor runs the PATCH worker.
#pragma once

#include <cstdint>

#include "store/commands.h"

namespace session_service {

// One instance exists, constructed by start-up on the main thread.
class SessionService {
  public:
    // Registers the PATCH channel, reads the settings from the store, starts the PATCH
    // worker and waits for its end: returns only then. Throws std::runtime_error, after an
    // error line, when a part cannot be brought up.
    SessionService();
    SessionService(const SessionService&) = delete;
    SessionService& operator=(const SessionService&) = delete;
    virtual ~SessionService();

    // The settings as they were when the object was constructed.
    [[nodiscard]] bool isEnabled() const noexcept;
    [[nodiscard]] std::int32_t sessionTimeout() const noexcept;

  private:
    void readSettings(redisContext* connection);

    bool enabled = false;
    std::int32_t timeout = 0;  // seconds
};

}  // namespace session_service
