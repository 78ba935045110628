-- Failed logins by the network that they came from. All workers share them. Logins that succeed are
-- not counted.
local settings = require "settings"

local failures = {}

local shared = ngx.shared.failed_logins

-- The count is stored as the moment at which all failures are forgotten. However the clock is set,
-- that is no further away than this.
local maxSeconds = (settings.maxFailures + settings.maxLogins) * settings.failureSeconds

local function countKey(network)
    return "count" .. network
end

local function recentKey(network)
    return "recent" .. network
end

-- Seconds until all failures are forgotten.
local function secondsLeft(network)
    local forgotten = shared:get(countKey(network))
    return forgotten and math.min(math.max(forgotten - ngx.now(), 0), maxSeconds) or 0
end

function failures.add(network)
    local seconds = math.min(secondsLeft(network) + settings.failureSeconds, maxSeconds)
    shared:set(countKey(network), ngx.now() + seconds, seconds)
    shared:set(recentKey(network), true, settings.recentSeconds)
end

-- Returns whether a login has failed recently, and how many seconds the next one has to wait for
-- all that have: 0 up to the limit.
function failures.of(network)
    local seconds = secondsLeft(network) - settings.maxFailures * settings.failureSeconds
    return shared:get(recentKey(network)) == true, math.max(seconds, 0)
end

return failures
