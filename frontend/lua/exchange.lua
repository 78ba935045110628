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

local exchange = {}

local function write(connection, key, fields)
    local words = {}
    for field, value in pairs(fields) do
        words[#words + 1] = field
        words[#words + 1] = value
    end
    store.run(connection, "hset", key, unpack(words))
    -- For the case that the front end ends before it has cleared up.
    store.run(connection, "expire", key, settings.giveUpTime + 60)
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
    subscription:set_timeout(settings.giveUpTime * 1000)
    if not subscription:read_reply() then
        return nil
    end
    return takeReply(connection, keys)
end

-- The body of the timer. `waiter` is shared with the request that may still be waiting.
local function run(premature, waiter, kind, record, body, checklist)
    local connection = not premature and store.connect()
    local subscription = connection and store.connect()
    if subscription then
        local prefix = contract.requests .. hex(rand.bytes(16))
        local keys = {
            request = prefix .. "/request",
            body = prefix .. "/body",
            checklist = prefix .. "/request/Checklist",
            reply = prefix .. "/reply",
        }
        local fine, reply =
            pcall(converse, connection, subscription, kind, keys, record, body, checklist)
        local cleared = pcall(store.run, connection, "del", keys.request, keys.body,
            keys.checklist, keys.reply)
        subscription:close()
        waiter.reply = fine and reply or nil
        if fine and cleared then
            store.release(connection)
        else
            connection:close()
        end
    elseif connection then
        store.release(connection)
    end
    if waiter.gone and waiter.reply and waiter.reply.location then
        exchange.start("logout", { ["&&TargetURI"] = waiter.reply.location })
    end
    waiter.reply = waiter.reply or false
    waiter.ready:post(1)
end

-- Starts an exchange and returns without waiting for it.
function exchange.start(kind, record, body, checklist)
    local waiter = { ready = semaphore.new() }
    if not ngx.timer.at(0, run, waiter, kind, record, body, checklist) then
        waiter.reply = false
        waiter.ready:post(1)
    end
    return waiter
end

-- Sends a request to the service and returns its reply: status, location, token, messages and the
-- set of unhandled properties. Raises the problem 503 when no reply comes in time.
--   kind       of the contract's queues
--   record     fields of the request; the keys of its parts are added
--   body       fields of the body, or nil
--   checklist  fields of the list of properties that await a handler, or nil
function exchange.call(kind, record, body, checklist)
    local waiter = exchange.start(kind, record, body, checklist)
    waiter.ready:wait(settings.answerTime)
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
