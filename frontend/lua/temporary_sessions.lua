-- The sessions of HTTP Basic. A request that comes with credentials needs a session for as long as
-- it is served. Requests with the same credentials from the same address share one, which ends soon
-- after the last of them. Few exist at a time, and clients do not see them.
local hmac = require "openssl.hmac"
local rand = require "openssl.rand"
local semaphore = require "ngx.semaphore"
local accountFiles = require "account_files"
local background = require "background"
local messages = require "messages"
local queue = require "login_queue"
local requests = require "requests"
local settings = require "settings"

local temporary = {}

-- Sessions that exist: key, uri, token, users (requests that are being served), begin, lastUse,
-- version (of the account files), isRetired (takes no more requests), ended (a semaphore).
local sessions = {}

-- Logins that are under way, by their key.
local logins = {}

-- Places for sessions whose logins the service has got.
local reserved = 0

local isWatched = false

-- What tells credentials and address apart; it tells nobody what they are.
local secret = rand.bytes(32)
local function keyOf(name, password)
    local text = #name .. " " .. name .. #password .. " " .. password .. ngx.var.remote_addr
    return hmac.new(secret, "sha256"):final(text)
end

local function forget(session)
    for i, other in ipairs(sessions) do
        if other == session then
            table.remove(sessions, i)
            session.ended:post(1)
            queue.advance()
            return
        end
    end
end

-- Ends a session as soon as nobody uses it.
local function retire(session)
    local isIdle = session.users == 0
    if isIdle and not session.isEnding then
        session.isEnding = true
        requests.logOut(session.uri, function()
            forget(session)
        end)
    end
    session.isRetired = true
end

-- Returns the session that can be spared most, nil when all are being ended.
local function leastUsed()
    local found
    for _, session in ipairs(sessions) do
        if not session.isRetired and (not found or session.users < found.users
            or session.users == found.users and session.lastUse < found.lastUse) then
            found = session
        end
    end
    return found
end

-- Ends what nobody has used for so many seconds, or since the clock was set back.
local function endIdle(seconds)
    for _, session in ipairs({ unpack(sessions) }) do
        if session.users == 0 and math.abs(ngx.now() - session.lastUse) >= seconds then
            retire(session)
        end
    end
end

-- Has sessions ended that become idle.
local function watch()
    local first
    for _, session in ipairs(sessions) do
        if session.users == 0 and not session.isRetired then
            first = math.min(first or session.lastUse, session.lastUse)
        end
    end
    if first and not isWatched then
        isWatched = true
        background.run(math.max(first + settings.basicIdleSeconds - ngx.now(), 0.01), function()
            isWatched = false
            endIdle(settings.basicIdleSeconds)
            watch()
        end)
    end
end

-- Tells whether there is a place for one more. When there is none, a session that is idle makes
-- room.
local function hasPlace()
    if #sessions + reserved < settings.maxBasicSessions then
        return true
    end
    for _, session in ipairs(sessions) do
        if session.isEnding then
            return false
        end
    end
    local session = leastUsed()
    if session and session.users == 0 then
        retire(session)
    end
    return false
end

-- Returns the session for a key, nil when there is none that can be shared.
local function find(key)
    for _, session in ipairs(sessions) do
        if session.key == key and not session.isRetired then
            if ngx.now() < session.begin + settings.maxBasicSeconds
                and session.version == accountFiles.version() then
                return session
            end
            retire(session)
        end
    end
    return nil
end

-- Logs in and shares what comes of it with those that wait for the same.
local function logIn(key, action)
    local login = { ready = semaphore.new(), waiting = 0 }
    local hasReserved = false
    local function mayStart()
        return hasReserved or hasPlace()
    end
    local function reserve()
        reserved = reserved + (hasReserved and 0 or 1)
        hasReserved = true
    end
    logins[key] = login
    local version = accountFiles.version()
    local succeeded, result = pcall(action, mayStart, reserve)
    logins[key] = nil
    if hasReserved then
        reserved = reserved - 1
    end
    local session = succeeded and {
        key = key,
        uri = result.location,
        token = result.token,
        users = 0,
        begin = ngx.now(),
        lastUse = ngx.now(),
        version = version,
        ended = semaphore.new(),
    }
    if session then
        sessions[#sessions + 1] = session
    elseif type(result) == "table" and (result.status == 401 or result.status == 403) then
        login.problem = result
    end
    if login.waiting > 0 then
        login.ready:post(login.waiting)
    end
    if not session then
        queue.advance()
        error(result, 0)
    end
    return session
end

-- Returns a session for these credentials: uri, token. temporary.release has to follow. Raises the
-- problem that a refused login is. `action` logs in: it gets the queue's mayStart and starts, and
-- returns the service's reply.
function temporary.take(name, password, deadline, action)
    local key = keyOf(name, password)
    local session = find(key)
    while not session do
        local login = logins[key]
        if ngx.now() >= deadline then
            error(messages.unavailable())
        elseif not login then
            session = logIn(key, action)
        else
            login.waiting = login.waiting + 1
            if not login.ready:wait(math.max(deadline - ngx.now(), 0)) then
                login.waiting = login.waiting - 1
            elseif login.problem then
                error(login.problem, 0)
            end
            session = find(key)
        end
    end
    session.users = session.users + 1
    return session
end

-- Ends the use of a session. `isInvalid`: the service does not know it any more.
function temporary.release(session, isInvalid)
    session.users = session.users - 1
    session.lastUse = ngx.now()
    if isInvalid then
        session.isRetired = true
        session.isEnding = true
        forget(session)
    elseif session.isRetired or ngx.worker.exiting() then
        retire(session)
    else
        watch()
        -- Somebody may be waiting for its place.
        queue.advance()
    end
end

-- Ends a session for one that is waited for. Tells whether one has ended before the deadline.
function temporary.makeRoom(deadline)
    local session = leastUsed() or sessions[1]
    if not session then
        return false
    end
    retire(session)
    if not session.ended:wait(math.max(deadline - ngx.now(), 0)) then
        return false
    end
    -- For others that wait for the same.
    session.ended:post(1)
    return true
end

-- Ends all sessions that are idle; the worker is about to end.
function temporary.endAll()
    endIdle(0)
end

-- Tells whether there is a session or about to be one.
function temporary.exist()
    return #sessions + reserved > 0
end

return temporary
