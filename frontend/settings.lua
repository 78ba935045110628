-- What differs from controller to controller.
return {
    storeSocket = "/run/redis/redis.sock",
    storePasswordFile = "/run/redis/redis.requirepass",
    keyFile = "/var/nginx/pkey.tmp",

    -- Seconds that a client waits for the session service; then it is told to try again.
    answerTimeout = 20,
    -- Seconds after which a stored request expires that was never answered.
    requestExpiry = 600,

    -- Logins of one address that are under way at a time; its others wait.
    maxLoginsOfAddress = 2,
    -- Requests to the session service that are under way at a time, of all clients.
    maxRequests = 128,
}
