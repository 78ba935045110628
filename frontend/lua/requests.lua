-- Requests to the session service. One round trip stores and publishes a request, another takes the
-- answer and removes everything.
--
-- A client does not wait for ever: it is told to try again. Its request goes on, and whatever comes
-- of it is removed when the answer comes, a session included.
local answers = require "answers"
local background = require "background"
local contract = require "contract"
local messages = require "messages"
local settings = require "settings"
local store = require "store"

local requests = {}

-- Seconds between tries to leave nothing behind that nobody holds: the first pause, and what it is
-- doubled up to. And the seconds after which it is left to expire.
local firstPause = 1
local maxPause = 5
local maxTrySeconds = 300

-- The sessions that are being logged out because nobody holds them, by their addresses.
local ending = {}

-- Answers that are to be taken though nobody waits for them. One timer takes them all: while the
-- store refuses, each of many would keep a connection of nginx's.
local untaken = {}
local isTaking = false

-- Keys: the request, its body, its checklist. Arguments: the queue, the expiry, how many words
-- there are for each key, and these words. Nothing is stored when nobody listens.
local sendScript = store.script([[
local channel = run('LINDEX', ARGV[1], 0)
if not channel then
    return 0
end
local position = 6
for i, key in ipairs(KEYS) do
    local words = tonumber(ARGV[2 + i])
    if words > 0 then
        redis.call('HSET', key, unpack(ARGV, position, position + words - 1))
        redis.call('EXPIRE', key, ARGV[2])
    end
    position = position + words
end
local receivers = redis.call('PUBLISH', channel, KEYS[1] .. ' ' .. KEYS[1])
if receivers == 0 then
    redis.call('DEL', unpack(KEYS))
end
return receivers
]])

-- Keys: the request, its body, its checklist. Arguments: a resource to read as well, or an empty
-- text (a login's session is read anyway); the sessions that are not counted as older ones.
local takeScript = store.script([[
local fields = hash(KEYS[1])
if not fields[$reply.status] then
    return false
end
local result = {
    status = fields[$reply.status],
    location = fields[$reply.location],
    token = fields[$reply.token],
    unhandled = ARGV[1] ~= '' and hash(KEYS[3]) or nil,
    messages = {},
}
local list = fields[$reply.messages]
local removed = {unpack(KEYS)}
removed[#removed + 1] = list
-- The latest message comes first.
local entries = list and run('LRANGE', list, 0, -1) or {}
for i = #entries, 1, -1 do
    local entry = hash(entries[i])
    local arguments = entry[$storedMessage.arguments]
    result.messages[#result.messages + 1] = {
        id = entry[$storedMessage.id] or '',
        arguments = arguments and run('LRANGE', arguments, 0, -1) or {},
    }
    removed[#removed + 1] = entries[i]
    removed[#removed + 1] = arguments
end
redis.call('DEL', unpack(removed))
local uri = result.location or ARGV[1]
if uri ~= '' then
    result.resource = run('HGETALL', uri)
end
if result.location then
    result.privilege = run('HGET', $tokenPrefix .. result.token, $token.privilege) or nil
    result.older = {all = 0, ofUser = 0}
    local isEnding = {}
    for i = 2, #ARGV do
        local session = ARGV[i]
        isEnding[session] = true
    end
    -- Later ones come before it in the list. Which session is one too many must not depend on them.
    local user = run('HGET', uri, $session.user)
    local isOlder = false
    for _, element in ipairs(run('LRANGE', $sessionMembers, 0, -1) or {}) do
        local member = string.match(element, '^&&%a+ (.+)$')
        local session = isOlder and member
            and run('HMGET', member, $session.type, $session.user, $session.origin) or {}
        if session[1] == $redfishType and not isEnding[member] then
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
    for name, value in pairs(fields or {}) do
        words[#words + 1] = name
        words[#words + 1] = value
    end
    return #words - before
end

-- Stores and publishes a request. Its key is that of the reply and the return channel as well, so
-- that one expires and is removed. Tells whether anybody has got it.
local function send(kind, key, record, body, checklist)
    record[contract.request.returnChannel] = key
    record[contract.request.data] = body and contract.bodyKey(key) or key
    local words = {}
    local recordWords = append(words, record)
    local bodyWords = append(words, body)
    local checklistWords = append(words, checklist)
    local command = store.call(sendScript, 3, key, contract.bodyKey(key),
        contract.checklistKey(key), contract.queues[kind], settings.requestExpiry, recordWords,
        bodyWords, checklistWords, unpack(words))
    return store.with(function(connection)
        return store.runAll(connection, { command })[1]
    end) > 0
end

-- Arguments are stored in quotes, with backslashes before quotes and backslashes.
local function unquoted(argument)
    return (argument:gsub('^"(.*)"$', "%1"):gsub("\\(.)", "%1"))
end

-- Takes the answer of a request and removes everything. Returns nil when there is none.
local function take(key, uri)
    local uncounted = {}
    for session in pairs(ending) do
        uncounted[#uncounted + 1] = session
    end
    local taken = store.runScript(takeScript, 3, key, contract.bodyKey(key),
        contract.checklistKey(key), uri or "", unpack(uncounted))
    for i, stored in ipairs(taken and taken.messages or {}) do
        local arguments = {}
        for n, argument in ipairs(stored.arguments) do
            arguments[n] = unquoted(argument)
        end
        taken.messages[i] = messages.new(stored.id, unpack(arguments))
    end
    return taken
end

-- Tries again until it has succeeded, for some minutes or until the worker is about to end.
local function tryAgain(hasSucceeded)
    local giveUpTime = ngx.now() + maxTrySeconds
    local pause = firstPause
    repeat
        ngx.sleep(pause)
        pause = math.min(2 * pause, maxPause)
    until hasSucceeded() or ngx.worker.exiting() or ngx.now() >= giveUpTime
end

-- Takes an answer that nobody waits for. Nobody would hold the session of such a login. Returns
-- whether the store could be asked, and the answer, if there is one.
local function takeUnheld(key)
    local succeeded, reply = pcall(take, key)
    if succeeded and reply and reply.location then
        requests.logOut(reply.location)
    end
    return succeeded, succeeded and reply or nil
end

local function takeAll()
    local failed = {}
    local i = 1
    -- Others may be added meanwhile.
    while untaken[i] do
        if not takeUnheld(untaken[i]) then
            failed[#failed + 1] = untaken[i]
        end
        i = i + 1
    end
    untaken = failed
    return #failed == 0
end

local function takeUntaken()
    if not takeAll() then
        tryAgain(takeAll)
    end
    untaken = {}
    isTaking = false
end

-- Takes an answer that nobody waits for, without waiting for that. Where it fails it is tried
-- again, for some minutes.
function requests.takeUnexpected(key)
    if #untaken < settings.maxRequests then
        untaken[#untaken + 1] = key
    end
    if not isTaking then
        isTaking = true
        background.run(0, takeUntaken)
    end
end

-- Waits for an answer that may still come; the request that waited for it has ended.
local function awaitUnheld(answer, whenDone)
    local hasCome = answers.wait(answer, settings.answerTimeout)
    answers.forget(answer)
    local taken, reply = true, nil
    if hasCome then
        taken, reply = takeUnheld(answer.channel)
    end
    whenDone(reply)
    if not taken then
        requests.takeUnexpected(answer.channel)
    end
end

local function doNothing()
end

-- Sends a request to the service and returns its reply: status, location, token, messages;
-- unhandled (what is left of the checklist) and resource (for resources.from) when one is to be
-- read; after a login resource, privilege (a text) and older (sessions that were there before: all,
-- and ofUser; without those that are being ended). Raises the problem 503 when no reply comes in
-- time.
--   kind     of the contract's queues
--   record   fields of the request; the keys of its parts are added
--   options  body (fields; without it the record holds them), checklist (fields), read (the
--            address of a resource to read afterwards), deadline, whenDone (called once the
--            service is no longer busy with the request, or cannot be expected to be; with the
--            reply if there is one, even if it comes too late): all optional
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
        background.run(0, awaitUnheld, answer, whenDone)
        error(messages.unavailable())
    end
    local taken, reply = pcall(take, answer.channel, options.read)
    whenDone(taken and reply or nil)
    if not taken then
        requests.takeUnexpected(answer.channel)
        error(reply, 0)
    end
    return reply or error(messages.unavailable())
end

local function hasSucceeded(reply)
    return reply.status == contract.status.ok or reply.status == contract.status.okEmpty
end

-- Tells whether the service has logged a session out.
local function tryLogOut(uri)
    local succeeded, reply =
        pcall(requests.call, "logout", { [contract.request.target] = uri }, {})
    return succeeded and hasSucceeded(reply)
end

-- Tells whether a session is known to exist no more.
local function hasEnded(uri)
    local succeeded, count = pcall(store.with, function(connection)
        return store.run(connection, "EXISTS", uri)
    end)
    return succeeded and count == 0
end

local function logOut(uri, whenDone)
    if not tryLogOut(uri) then
        tryAgain(function()
            return hasEnded(uri) or tryLogOut(uri)
        end)
    end
    ending[uri] = nil
    whenDone()
end

-- Logs a session out that nobody uses, without waiting for that; then calls whenDone, if given.
-- Where it fails it is tried again, for some minutes; then the session is left to expire.
function requests.logOut(uri, whenDone)
    ending[uri] = true
    background.run(0, logOut, uri, whenDone or doNothing)
end

-- Tells whether sessions are being logged out that nobody uses.
function requests.areEnding()
    return next(ending) ~= nil
end

-- Waits until no session is being logged out that nobody uses. Tells whether none is.
function requests.awaitEndings(deadline)
    while requests.areEnding() and ngx.now() < deadline do
        ngx.sleep(0.01)
    end
    return not requests.areEnding()
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
    if hasSucceeded(reply) then
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
