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
}
