-- Logins wait here and not in the session service, which checks one password after another and
-- takes seconds for a wrong one: it gets few at a time. The next one comes from where nothing has
-- failed recently; among those, from where the fewest are waiting; among those, it is the first.
-- Whoever guesses passwords waits behind everybody else.
--
-- A login that has found no place asks again alone: when no other is in the service, so that no
-- session has a place of those that are logged out again.
local semaphore = require "ngx.semaphore"
local background = require "background"
local failures = require "failures"
local settings = require "settings"

local queue = {}

-- The logins that wait, by the network that they come from, the first one first.
local lines = {}
local waiting = 0
local arrivals = 0
local inService = 0

-- Where those wait that ask alone. No network has this name.
local aloneLine = "alone"

-- When the queue is looked at again, nil when it is not.
local wakeTime

-- Ends the waiting of a login.
local function finish(login, outcome)
    local line = lines[login.line]
    for i, other in ipairs(line) do
        if other == login then
            table.remove(line, i)
            break
        end
    end
    if #line == 0 then
        lines[login.line] = nil
    end
    waiting = waiting - 1
    login.outcome = outcome
    login.ready:post(1)
end

-- Ends the waiting of those whose clients have gone: they must neither take the room of others nor
-- put others of their address back.
local function dropGone()
    for _, line in pairs(lines) do
        for i = #line, 1, -1 do
            if line[i].isGone() then
                finish(line[i], "gone")
            end
        end
    end
end

local function precedes(one, other)
    if one.hasFailed ~= other.hasFailed then
        return other.hasFailed
    elseif one.length ~= other.length then
        return one.length < other.length
    end
    return one.login.arrival < other.login.arrival
end

-- Returns the login of a line that comes first; nil when none of them may start.
local function firstOf(line)
    for _, login in ipairs(line) do
        if not login.mayStart or login.mayStart() then
            return login
        end
    end
    return nil
end

-- Returns the login that comes next, nil when there is none; and after how many seconds another may
-- come, if any.
local function findNext()
    if lines[aloneLine] then
        return inService == 0 and lines[aloneLine][1] or nil
    end
    local best, seconds
    -- The last turn is for those from where nothing has failed.
    local failedMayStart = inService < math.max(settings.maxLogins - 1, 1)
    for network, line in pairs(lines) do
        local hasFailed, pause = failures.of(network)
        local login = pause == 0 and (failedMayStart or not hasFailed) and firstOf(line)
        local candidate = { login = login, hasFailed = hasFailed, length = #line }
        if login and (not best or precedes(candidate, best)) then
            best = candidate
        elseif pause > 0 then
            seconds = math.min(seconds or pause, pause)
        end
    end
    return best and best.login, seconds
end

local function wakeLater(seconds)
    -- A timer of less than a millisecond runs before the clock has gone on, again and again.
    seconds = math.max(seconds, 0.001)
    local time = ngx.now() + seconds
    if wakeTime and wakeTime <= time then
        return
    end
    wakeTime = time
    background.run(seconds, function()
        wakeTime = nil
        queue.advance()
    end)
end

-- Gives turns while there are any. To be called when a login may start that could not before.
function queue.advance()
    if inService < settings.maxLogins then
        dropGone()
    end
    while waiting > 0 and inService < settings.maxLogins do
        local login, seconds = findNext()
        if not login then
            if seconds then
                wakeLater(seconds)
            end
            return
        end
        login.turns = login.isAlone and settings.maxLogins or 1
        inService = inService + login.turns
        if login.starts then
            login.starts()
        end
        finish(login, "turn")
    end
end

local function hasRoom(network)
    return #(lines[network] or {}) < settings.maxWaitingOfAddress
        and waiting < settings.maxWaiting
end

-- Makes room for one more when too many are waiting. Tells whether there is room.
local function makeRoom(network)
    if hasRoom(network) then
        return true
    end
    dropGone()
    if hasRoom(network) then
        return true
    end
    local own = lines[network] or {}
    if #own >= settings.maxWaitingOfAddress then
        return false
    end
    local longest = own
    for name, line in pairs(lines) do
        longest = name ~= aloneLine and #line > #longest and line or longest
    end
    if longest == own then
        return false
    end
    finish(longest[#longest], "refused")
    return true
end

-- Waits for a turn. Returns what has come of it:
--   turn     the service may be asked; queue.leave has to follow
--   late     the deadline has come
--   gone     the client has closed its connection
--   refused  too many are waiting
-- A login has network, deadline and isGone; isAlone, if it has had a turn and asks again; and, if
-- not all of them may start at any time, mayStart and starts, which is called when its turn has
-- come.
function queue.enter(login)
    if not login.isAlone and not makeRoom(login.network) then
        return "refused"
    end
    login.line = login.isAlone and aloneLine or login.network
    login.outcome = nil
    arrivals = arrivals + 1
    login.arrival = arrivals
    login.ready = semaphore.new()
    lines[login.line] = lines[login.line] or {}
    table.insert(lines[login.line], login)
    waiting = waiting + 1
    queue.advance()
    if not login.outcome then
        login.ready:wait(math.max(login.deadline - ngx.now(), 0))
    end
    if not login.outcome then
        finish(login, "late")
        -- Others may have waited for it.
        queue.advance()
    end
    return login.outcome
end

-- Ends a login's turn.
function queue.leave(login)
    inService = inService - login.turns
    queue.advance()
end

-- Tells whether there are logins that wait or have their turns.
function queue.isBusy()
    return waiting + inService > 0
end

return queue
