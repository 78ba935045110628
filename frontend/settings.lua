-- What differs from controller to controller.
return {
    storeSocket = "/run/redis/redis.sock",
    storePasswordFile = "/run/redis/redis.requirepass",
    keyFile = "/var/nginx/pkey.tmp",

    -- Seconds that a client waits for the session service; then it is told to try again.
    answerTime = 20,
    -- Seconds that the front end itself goes on waiting, to clear up after a late answer.
    -- What it stored expires a minute later, should the front end end before that.
    giveUpTime = 600,

    -- Logins of one address that are under way at a time; its others wait for their turn.
    loginsAtATime = 2,
    -- Requests to the session service that are under way at a time, of all clients.
    exchangesAtATime = 128,
}
