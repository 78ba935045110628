-- Requests to the session service: each is stored, published, answered and removed.
--
-- A request is carried out by a timer, so that it goes on when its client has been told to try
-- again or has gone: the late answer is taken, what is stored is removed, and the session of a
-- login that nobody waits for any more is logged out.
local semaphore = require "ngx.semaphore"
local rand = require "openssl.rand"
local contract = require "contract"
local hex = require "hex"
local messages = require "messages"
local settings = require "settings"
local store = require "store"
local turns = require "turns"

local requests = {}

-- What the front end stores begins with this, and a part of its own for each request.
local keyPrefix = "&&/frontend/"

-- What is stored expires this many seconds after the last moment at which anybody waits for it.
local expiryMargin = 60

-- A reply that comes when nobody waits any more is kept for so many seconds: the service adds it to
-- the key that is there, and gives it no expiry.
local lateReplySeconds = 86400

-- Writes a hash with an expiry, in case nobody removes it.
local writeScript = [[
redis.call('HSET', KEYS[1], unpack(ARGV, 2))
redis.call('EXPIRE', KEYS[1], ARGV[1])
]]

local function write(connection, key, fields)
    local words = {}
    for field, value in pairs(fields) do
        words[#words + 1] = field
        words[#words + 1] = value
    end
    store.run(connection, "eval", writeScript, 1, key, settings.requestTimeout + expiryMargin,
        unpack(words))
end

-- Arguments are stored in quotes, with backslashes before quotes and backslashes.
local function unquoted(argument)
    return (argument:gsub('^"(.*)"$', "%1"):gsub("\\(.)", "%1"))
end

-- Reads the messages of a reply, oldest first, and removes them.
local function takeMessages(connection, list)
    local field = contract.storedMessage
    local found = {}
    local entries = store.run(connection, "lrange", list, 0, -1) or {}
    for i = #entries, 1, -1 do
        local entry = store.hash(connection, entries[i]) or {}
        local message = messages.new(entry[field.id] or "")
        if entry[field.arguments] then
            local stored = store.run(connection, "lrange", entry[field.arguments], 0, -1) or {}
            for n, argument in ipairs(stored) do
                message.arguments[n] = unquoted(argument)
            end
            store.run(connection, "del", entry[field.arguments])
        end
        found[#found + 1] = message
        store.run(connection, "del", entries[i])
    end
    store.run(connection, "del", list)
    return found
end

local function takeReply(connection, keys)
    local fields = store.hash(connection, keys.reply) or {}
    local reply = {
        status = fields[contract.reply.status],
        location = fields[contract.reply.location],
        token = fields[contract.reply.token],
        messages = {},
        unhandled = store.hash(connection, keys.checklist) or {},
    }
    if fields[contract.reply.messages] then
        reply.messages = takeMessages(connection, fields[contract.reply.messages])
    end
    return reply
end

-- Stores and publishes the request and waits for the answer. Returns the reply, nil when nobody
-- listens or no answer comes.
local function send(connection, subscription, kind, keys, record, body, checklist)
    local channel = store.run(connection, "lindex", contract.queues[kind], 0)
    if not channel then
        return nil
    end
    -- The reply's key is the return channel's name as well: a login also writes into a hash of that
    -- name, and so there is only one to remove.
    record[contract.request.returnChannel] = keys.reply
    if body then
        record[contract.request.data] = keys.body
        write(connection, keys.body, body)
    end
    if checklist then
        write(connection, keys.checklist, checklist)
    end
    write(connection, keys.request, record)
    -- Its only purpose is to give the reply an expiry.
    write(connection, keys.reply, { ["&&RequestKey"] = keys.request })

    store.run(subscription, "subscribe", keys.reply)
    if store.run(connection, "publish", channel, keys.request .. " " .. keys.reply) == 0 then
        return nil
    end
    keys.replyMayCome = true
    subscription:set_timeout(settings.requestTimeout * 1000)
    if not subscription:read_reply() then
        return nil
    end
    keys.replyMayCome = false
    return takeReply(connection, keys)
end

local function remove(connection, keys)
    store.run(connection, "del", keys.request, keys.body, keys.checklist)
    if keys.replyMayCome then
        store.run(connection, "expire", keys.reply, lateReplySeconds)
    else
        store.run(connection, "del", keys.reply)
    end
end

-- Carries out one request over connections of its own. Returns the reply, or nil.
local function perform(kind, record, body, checklist)
    local connection = store.connect()
    local connected, subscription = pcall(store.connect)
    if not connected then
        store.release(connection)
        return nil
    end
    local prefix = keyPrefix .. hex(rand.bytes(16))
    local keys = {
        request = prefix .. "/request",
        body = prefix .. "/body",
        checklist = contract.checklistKey(prefix .. "/request"),
        reply = prefix .. "/reply",
    }
    local sent, reply = pcall(send, connection, subscription, kind, keys, record, body, checklist)
    local removed = pcall(remove, connection, keys)
    subscription:close()
    if sent and removed then
        store.release(connection)
    else
        connection:close()
    end
    return sent and reply or nil
end

local underWay = 0

-- The timer's function. `caller` is shared with the client's request, which may still be waiting.
local function run(premature, caller, ...)
    local succeeded, reply = false, nil
    if not premature then
        succeeded, reply = pcall(perform, ...)
    end
    reply = succeeded and reply or false
    underWay = underWay - 1
    caller.finish(reply)
    if caller.gone and reply and reply.location then
        requests.logOut(reply.location)
    end
end

-- Starts a request and returns without waiting for it. `address` has a turn, which ends with the
-- request; nil when it needs none.
local function start(address, kind, record, body, checklist)
    local caller = { ready = semaphore.new() }
    function caller.finish(reply)
        caller.reply = reply
        caller.ready:post(1)
        if address then
            turns.give(address)
        end
    end
    if underWay < settings.maxRequests
        and ngx.timer.at(0, run, caller, kind, record, body, checklist) then
        underWay = underWay + 1
    else
        caller.finish(false)
    end
    return caller
end

-- Logs a session out that nobody uses, without waiting for that. Where it fails, the session
-- expires.
function requests.logOut(uri)
    start(nil, "logout", { [contract.request.target] = uri })
end

-- Sends a request to the service and returns its reply: status, location, token, messages, and
-- unhandled (what is left of the checklist). Raises the problem 503 when no reply comes in time.
--   kind       of the contract's queues
--   record     fields of the request; the keys of its parts are added
--   body       fields of the body, or nil
--   checklist  fields of the list of properties that await a handler, or nil
function requests.call(kind, record, body, checklist)
    local deadline = ngx.now() + settings.answerTimeout
    local address = kind == "login" and ngx.var.remote_addr or nil
    if address and not turns.take(address, settings.answerTimeout) then
        error(messages.unavailable())
    end
    local caller = start(address, kind, record, body, checklist)
    caller.ready:wait(math.max(deadline - ngx.now(), 0))
    if not caller.reply then
        caller.gone = true
        error(messages.unavailable())
    end
    return caller.reply
end

local httpStatus = {
    [contract.status.authFailed] = 401,
    [contract.status.forbidden] = 403,
    [contract.status.unavailable] = 503,
    [contract.status.exception] = 500,
}

-- Raises the problem that a reply stands for unless its status is a success. `clientFaults` is the
-- set of messages of a failure that are the client's fault; all others are the service's.
function requests.expectSuccess(reply, clientFaults)
    if reply.status == contract.status.ok or reply.status == contract.status.okEmpty then
        return
    end
    local first = reply.messages[1]
    local status = httpStatus[reply.status]
    if reply.status == contract.status.failure and first and clientFaults[first.id] then
        status = 400
    end
    status = status or 500
    if status == 503 then
        local seconds = first and first.id == contract.message.serviceTemporarilyUnavailable
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

return requests
