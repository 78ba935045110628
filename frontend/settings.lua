-- What differs from controller to controller.
return {
    storeSocket = "/run/session-service-store/redis.sock",
    storePasswordFile = "/run/session-service-store/redis.requirepass",
    keyFile = "/var/nginx/pkey.tmp",
    -- The one of nginx.conf. A client without TLS is sent to no name that is not in it.
    certificateFile = "/usr/local/etc/nginx/certificate.pem",

    -- Seconds that a client waits for the session service; then it is told to try again.
    answerTimeout = 20,
    -- Seconds after which a stored request expires that was never answered.
    requestExpiry = 600,

    -- Logins that the session service has at a time. It checks one password after another.
    maxLogins = 2,
    -- Logins that wait: of all clients, and of one address (an IPv6 /64 counts as one).
    maxWaiting = 256,
    maxWaitingOfAddress = 32,
    -- Seconds for which a failed login puts others of its address behind everybody else's.
    recentSeconds = 300,
    -- Failed logins of an address that have no other consequence. Beyond them the next one waits
    -- until one is forgotten, which takes so many seconds for each.
    maxFailures = 10,
    failureSeconds = 5,
    -- Seconds in which a login without a name is refused, until a wrong password has shown how long
    -- that takes.
    refusalSeconds = 2,
    -- Sessions of one user, of the eight that there can be.
    maxSessionsOfUser = 6,
    -- Sessions of HTTP Basic: how many there are at a time, how many seconds one is kept after its
    -- last use and how many it is shared at most.
    maxBasicSessions = 2,
    basicIdleSeconds = 2,
    maxBasicSeconds = 30,
    -- The passwords of this machine's accounts. A change ends the sharing of sessions.
    accountFiles = { "/etc/shadow" },

    -- Requests to the session service that are under way at a time, of all clients.
    maxRequests = 128,
}
