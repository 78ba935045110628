-- Failed logins by the network that they came from. All workers share the count. Those that
-- succeed are not counted.
local settings = require "settings"

local failures = {}

local shared = ngx.shared.failed_logins

-- What is stored is the moment at which all failures are forgotten. However the clock is set, it is
-- no further away than this.
local maxSeconds = (settings.maxFailures + settings.maxLogins) * settings.failureSeconds

-- Seconds until all failures are forgotten.
local function secondsLeft(network)
    local forgotten = shared:get(network)
    return forgotten and math.min(math.max(forgotten - ngx.now(), 0), maxSeconds) or 0
end

function failures.add(network)
    local seconds = math.min(secondsLeft(network) + settings.failureSeconds, maxSeconds)
    shared:set(network, ngx.now() + seconds, seconds)
end

-- Returns whether a login has failed recently, and how many seconds the next one has to wait for
-- that: 0 up to the limit.
function failures.of(network)
    local seconds = secondsLeft(network)
    return seconds > 0, math.max(seconds - settings.maxFailures * settings.failureSeconds, 0)
end

return failures
