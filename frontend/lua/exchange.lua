-- One request to the session service: stored, announced, answered, cleared away.
--
-- An exchange runs in a timer of its own. So it outlives a client that was told to try again
-- or that went away: it waits on for the late answer and leaves nothing of it behind, not even the
-- session of a login that nobody waits for any more.
local semaphore = require "ngx.semaphore"
local rand = require "openssl.rand"
local contract = require "contract"
local hex = require "hex"
local messages = require "messages"
local settings = require "settings"
local store = require "store"
local turns = require "turns"

local exchange = {}

-- With an expiry from the start, for the case that nobody clears up.
local writing = [[
redis.call('HSET', KEYS[1], unpack(ARGV, 2))
redis.call('EXPIRE', KEYS[1], ARGV[1])
]]

local function write(connection, key, fields)
    local words = {}
    for field, value in pairs(fields) do
        words[#words + 1] = field
        words[#words + 1] = value
    end
    store.run(connection, "eval", writing, 1, key, settings.giveUpTime + 60, unpack(words))
end

-- An argument is stored as a JSON-like literal: quotes around it, backslashes in it.
local function unquoted(argument)
    return (argument:gsub('^"(.*)"$', "%1"):gsub("\\(.)", "%1"))
end

-- Reads the messages of a reply, oldest first, and removes them.
local function takeMessages(connection, list)
    local found = {}
    local entries = store.run(connection, "lrange", list, 0, -1) or {}
    for i = #entries, 1, -1 do
        local entry = store.hash(connection, entries[i]) or {}
        local message = messages.new(entry["&&MessageId"] or "")
        if entry["&&MessageArgs"] then
            local stored = store.run(connection, "lrange", entry["&&MessageArgs"], 0, -1) or {}
            for n, argument in ipairs(stored) do
                message.arguments[n] = unquoted(argument)
            end
            store.run(connection, "del", entry["&&MessageArgs"])
        end
        found[#found + 1] = message
        store.run(connection, "del", entries[i])
    end
    store.run(connection, "del", list)
    return found
end

-- Returns what the service answered; the fields of the reply under their own names.
local function takeReply(connection, keys)
    local fields = store.hash(connection, keys.reply) or {}
    local reply = {
        status = fields["&&ReturnStatus"],
        location = fields["&&Location"],
        token = fields["&&X-Auth-Token"],
        messages = {},
        unhandled = {},
    }
    if fields["&&ExtendedInfo"] then
        reply.messages = takeMessages(connection, fields["&&ExtendedInfo"])
    end
    for field in pairs(store.hash(connection, keys.checklist) or {}) do
        reply.unhandled[field:sub(2)] = true
    end
    return reply
end

-- Announces the request and blocks until the service has answered. Returns the reply, nil when
-- nobody listens or no answer comes.
local function converse(connection, subscription, kind, keys, record, body, checklist)
    local channel = store.run(connection, "lindex", contract.queues[kind], 0)
    if not channel then
        return nil
    end
    -- The reply's key is the return channel's name as well: a login writes into a hash of
    -- that name, and so there is just one to remove.
    record["&&ReturnChannel"] = keys.reply
    if body then
        record["&&RequestData"] = keys.body
        write(connection, keys.body, body)
    end
    if checklist then
        write(connection, keys.checklist, checklist)
    end
    write(connection, keys.request, record)
    write(connection, keys.reply, { ["&&RequestKey"] = keys.request })

    store.run(subscription, "subscribe", keys.reply)
    if store.run(connection, "publish", channel, keys.request .. " " .. keys.reply) == 0 then
        return nil
    end
    keys.replyMayCome = true
    subscription:set_timeout(settings.giveUpTime * 1000)
    if not subscription:read_reply() then
        return nil
    end
    keys.replyMayCome = false
    return takeReply(connection, keys)
end

-- Seconds that a reply is kept which the service may write when nobody waits any more: it adds to
-- what is there, without an expiry of its own.
local latest = 86400

local function clearAway(connection, keys)
    store.run(connection, "del", keys.request, keys.body, keys.checklist)
    if keys.replyMayCome then
        store.run(connection, "expire", keys.reply, latest)
    else
        store.run(connection, "del", keys.reply)
    end
end

local underWay = 0

-- Converses over connections of its own and clears away. Returns the reply, or nil.
local function perform(kind, record, body, checklist)
    local connection = store.connect()
    local subscription = connection and store.connect()
    if not subscription then
        if connection then
            store.release(connection)
        end
        return nil
    end
    local prefix = contract.requests .. hex(rand.bytes(16))
    local keys = {
        request = prefix .. "/request",
        body = prefix .. "/body",
        checklist = prefix .. "/request/Checklist",
        reply = prefix .. "/reply",
    }
    local fine, reply =
        pcall(converse, connection, subscription, kind, keys, record, body, checklist)
    local cleared = pcall(clearAway, connection, keys)
    subscription:close()
    if fine and cleared then
        store.release(connection)
    else
        connection:close()
    end
    return fine and reply or nil
end

-- The body of the timer. `waiter` is shared with the request that may still be waiting.
local function run(premature, waiter, ...)
    local fine, reply = false, nil
    if not premature then
        fine, reply = pcall(perform, ...)
    end
    reply = fine and reply or false
    underWay = underWay - 1
    waiter.done(reply)
    if waiter.gone and reply and reply.location then
        exchange.logOut(reply.location)
    end
end

-- Starts an exchange and returns without waiting for it. `address` has a turn, which ends with the
-- exchange; nil when it needs none.
local function start(address, kind, record, body, checklist)
    local waiter = { ready = semaphore.new() }
    function waiter.done(reply)
        waiter.reply = reply
        waiter.ready:post(1)
        if address then
            turns.give(address)
        end
    end
    if underWay < settings.exchangesAtATime
        and ngx.timer.at(0, run, waiter, kind, record, body, checklist) then
        underWay = underWay + 1
    else
        waiter.done(false)
    end
    return waiter
end

-- Has a session ended that nobody knows of, without waiting for that. Where it fails, the session
-- expires.
function exchange.logOut(uri)
    start(nil, "logout", { ["&&TargetURI"] = uri })
end

-- Sends a request to the service and returns its reply: status, location, token, messages and the
-- set of unhandled properties. Raises the problem 503 when no reply comes in time.
--   kind       of the contract's queues
--   record     fields of the request; the keys of its parts are added
--   body       fields of the body, or nil
--   checklist  fields of the list of properties that await a handler, or nil
function exchange.call(kind, record, body, checklist)
    local deadline = ngx.now() + settings.answerTime
    local address = kind == "login" and ngx.var.remote_addr or nil
    if address and not turns.take(address, settings.answerTime) then
        error(messages.unavailable())
    end
    local waiter = start(address, kind, record, body, checklist)
    waiter.ready:wait(math.max(deadline - ngx.now(), 0))
    if not waiter.reply then
        waiter.gone = true
        error(messages.unavailable())
    end
    return waiter.reply
end

local refusals = {
    AUTH_FAILED = 401,
    FORBIDDEN = 403,
    UNAVAILABLE = 503,
    EXCEPTION = 500,
}

-- Raises the problem that a reply stands for unless its status is one of a success. `faults` is the
-- set of those failures' messages that are the client's fault; the others are the service's.
function exchange.expectSuccess(reply, faults)
    if reply.status == "OK" or reply.status == "OK_EMPTY" then
        return
    end
    local first = reply.messages[1]
    local status = refusals[reply.status]
    if reply.status == "FAILURE" and first and faults[first.id] then
        status = 400
    end
    status = status or 500
    if status == 503 then
        local seconds = first and first.id == "Base.1.12.ServiceTemporarilyUnavailable"
            and tonumber(first.arguments[1])
        local problem = messages.unavailable(seconds)
        if first then
            problem.messages = reply.messages
        end
        error(problem)
    end
    local list = first and reply.messages or { messages.new("Base.1.12.InternalError") }
    error(messages.problem(status, list))
end

return exchange
