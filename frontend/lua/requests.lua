-- Requests to the session service. One round trip stores and publishes a request, another takes the
-- answer and removes everything.
--
-- A client does not wait for ever: it is told to try again. Its request goes on, and whatever comes
-- of it is removed when the answer comes, a session included.
local answers = require "answers"
local contract = require "contract"
local messages = require "messages"
local resources = require "resources"
local settings = require "settings"
local store = require "store"

local requests = {}

-- Seconds that a reply is kept that comes when the front end is gone: the service adds it to the
-- key that is there, and gives it no expiry.
local lateReplySeconds = 86400

-- Keys: the request, its body, its checklist, its reply. Arguments: the queue, the two expiries,
-- how many words there are for request, body and checklist, and these words. Nothing is stored
-- when nobody listens.
local sendScript = store.script([[
local channel = run('LINDEX', ARGV[1], 0)
if not channel then
    return cjson.encode(0)
end
local position = 7
for i = 1, 3 do
    local words = tonumber(ARGV[3 + i])
    if words > 0 then
        redis.call('HSET', KEYS[i], unpack(ARGV, position, position + words - 1))
        redis.call('EXPIRE', KEYS[i], ARGV[2])
    end
    position = position + words
end
-- Its only purpose is the expiry of the reply.
redis.call('HSET', KEYS[4], 'request', KEYS[1])
redis.call('EXPIRE', KEYS[4], ARGV[3])
local receivers = redis.call('PUBLISH', channel, KEYS[1] .. ' ' .. KEYS[4])
if receivers == 0 then
    redis.call('DEL', unpack(KEYS))
end
return cjson.encode(receivers)
]])

-- Keys: the request, its body, its checklist, its reply. Argument: a resource to read as well, or
-- an empty text; a login's session is read anyway.
local takeScript = store.script(resources.collect .. [[
local fields = hash(KEYS[4])
if not fields[$reply.status] then
    return false
end
local result = {
    status = fields[$reply.status],
    location = fields[$reply.location],
    token = fields[$reply.token],
    unhandled = hash(KEYS[3]),
    messages = {},
}
local list = fields[$reply.messages]
-- The latest message comes first.
local entries = list and run('LRANGE', list, 0, -1) or {}
for i = #entries, 1, -1 do
    local entry = hash(entries[i])
    local arguments = entry[$storedMessage.arguments]
    result.messages[#result.messages + 1] = {
        id = entry[$storedMessage.id] or '',
        arguments = arguments and run('LRANGE', arguments, 0, -1) or {},
    }
    redis.call('DEL', entries[i], arguments or entries[i])
end
redis.call('DEL', KEYS[1], KEYS[2], KEYS[3], KEYS[4], list or KEYS[4])
local uri = result.location or ARGV[1]
if uri ~= '' then
    result.tree = collect(uri)
end
if result.location then
    result.privilege = run('HGET', $tokenPrefix .. result.token, $token.privilege) or nil
    -- Later ones come before it in the list. Which session is one too many must not depend on them.
    result.older = {all = 0, ofUser = 0}
    local user = run('HGET', uri, $session.user)
    local isOlder = false
    for _, element in ipairs(run('LRANGE', $sessionMembers, 0, -1) or {}) do
        local member = string.match(element, '^&&%a+ (.+)$')
        local session = isOlder and member
            and run('HMGET', member, $session.type, $session.user, $session.origin) or {}
        if session[1] == $redfishType then
            local isUsers = session[2] == user and session[3] ~= $temporaryOrigin
            result.older.all = result.older.all + 1
            result.older.ofUser = result.older.ofUser + (isUsers and 1 or 0)
        end
        isOlder = isOlder or member == uri
    end
end
return cjson.encode(result)
]])

local function append(words, fields)
    local before = #words
    for field, value in pairs(fields or {}) do
        words[#words + 1] = field
        words[#words + 1] = value
    end
    return #words - before
end

local function keysOf(channel)
    local stem = channel:gsub("[^/]*$", "")
    local request = stem .. "request"
    return request, stem .. "body", contract.checklistKey(request), channel
end

-- Stores and publishes a request. Tells whether anybody has got it.
local function send(kind, channel, record, body, checklist)
    local request, bodyKey, checklistKey, reply = keysOf(channel)
    -- The reply's key is the return channel's name as well: a login also writes into a hash of that
    -- name, and so there is only one to remove.
    record[contract.request.returnChannel] = reply
    record[contract.request.data] = body and bodyKey
    local words = {}
    local recordWords = append(words, record)
    local bodyWords = append(words, body)
    local checklistWords = append(words, checklist)
    return store.with(function(connection)
        return store.runScript(connection, sendScript, 4, request, bodyKey, checklistKey, reply,
            contract.queues[kind], settings.requestExpiry, lateReplySeconds, recordWords, bodyWords,
            checklistWords, unpack(words))
    end) > 0
end

-- Arguments are stored in quotes, with backslashes before quotes and backslashes.
local function unquoted(argument)
    return (argument:gsub('^"(.*)"$', "%1"):gsub("\\(.)", "%1"))
end

-- Takes the answer of a request and removes everything. Returns nil when there is none.
local function take(channel, uri)
    local request, bodyKey, checklistKey, reply = keysOf(channel)
    local taken = store.with(function(connection)
        return store.runScript(connection, takeScript, 4, request, bodyKey, checklistKey, reply,
            uri or "")
    end)
    for i, stored in ipairs(taken and taken.messages or {}) do
        local arguments = {}
        for n, argument in ipairs(stored.arguments) do
            arguments[n] = unquoted(argument)
        end
        taken.messages[i] = messages.new(stored.id, unpack(arguments))
    end
    return taken
end

-- Takes an answer that nobody waits for. Nobody would hold the session of such a login.
local function takeUnheld(_, channel)
    local succeeded, reply = pcall(take, channel)
    if succeeded and reply and reply.location then
        requests.logOut(reply.location)
    end
end

-- The same from now on, for an answer that may still come; the request that waited for it has
-- ended.
local function awaitUnheld(_, answer, whenDone)
    local hasCome = answers.wait(answer, settings.answerTimeout)
    answers.forget(answer)
    whenDone()
    if hasCome then
        takeUnheld(nil, answer.channel)
    end
end

-- For the answers' own start.
function requests.takeUnexpected(channel)
    ngx.timer.at(0, takeUnheld, channel)
end

local function doNothing()
end

-- Sends a request to the service and returns its reply: status, location, token, messages,
-- unhandled (what is left of the checklist), tree (of the resource to read, or the session); after
-- a login privilege (a text) and older (sessions that were there before: all, and ofUser).
-- Raises the problem 503 when no reply comes in time.
--   kind     of the contract's queues
--   record   fields of the request; the keys of its parts are added
--   options  body and checklist (fields), read (the address of a resource to read afterwards),
--            deadline, whenDone (called once the service is no longer busy with the request, or
--            cannot be expected to be): all optional
function requests.call(kind, record, options)
    local whenDone = options.whenDone or doNothing
    local expecting, answer = pcall(answers.expect)
    if not expecting then
        whenDone()
        error(answer, 0)
    end
    local deadline = options.deadline or ngx.now() + settings.answerTimeout
    local sent, received =
        pcall(send, kind, answer.channel, record, options.body, options.checklist)
    if not sent or not received then
        answers.forget(answer)
        whenDone()
        error(sent and messages.unavailable() or received, 0)
    end
    if not answers.wait(answer, deadline - ngx.now()) then
        if not ngx.timer.at(0, awaitUnheld, answer, whenDone) then
            whenDone()
        end
        error(messages.unavailable())
    end
    whenDone()
    return take(answer.channel, options.read) or error(messages.unavailable())
end

local function logOut(_, uri, whenDone)
    pcall(requests.call, "logout", { [contract.request.target] = uri }, {})
    whenDone()
end

-- Logs a session out that nobody uses, without waiting for that; then calls whenDone, if given.
-- Where it fails, the session expires.
function requests.logOut(uri, whenDone)
    ngx.timer.at(0, logOut, uri, whenDone or doNothing)
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
