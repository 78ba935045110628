-- Logging in, from the credentials to the session.
local client = require "client"
local contract = require "contract"
local encrypt = require "encrypt"
local failures = require "failures"
local json = require "json"
local log = require "log"
local messages = require "messages"
local privileges = require "privileges"
local queue = require "login_queue"
local requests = require "requests"
local settings = require "settings"
local temporary = require "temporary_sessions"

local logins = {}

-- Messages of failed logins that are the client's fault.
local clientFaults = { [contract.message.stringValueTooLong] = true }

-- Names go into logs, for which there may be little room.
local maxNameLength = 255

-- How long the service took to refuse the last wrong password.
local refusalSeconds = settings.refusalSeconds

-- Returns a problem with the words for the log of refused logins.
local function refusal(problem, reason)
    problem.reason = reason
    return problem
end

local function wrongCredentials(list)
    list = list or { messages.new(contract.message.invalidCredentials) }
    return refusal(messages.unauthorized(list), "wrong name or password")
end

-- Waits for a turn in the queue; raises a problem when there is none.
local function awaitTurn(login)
    local outcome = queue.enter(login)
    if outcome == "gone" then
        error(messages.clientGone())
    elseif outcome == "late" then
        error(refusal(messages.unavailable(), "no turn in time"))
    elseif outcome == "refused" then
        error(refusal(messages.tooMany(), "too many logins"))
    end
end

local function limitExceeded(resolution, reason)
    local message = messages.new(contract.message.sessionLimitExceeded)
    message.resolution = resolution
    local problem = messages.unavailable()
    problem.messages = { message }
    return refusal(problem, reason)
end

-- Tells whether the service had no place for a session.
local function isFull(reply)
    local first = reply.messages[1]
    return first ~= nil and first.id == contract.message.sessionLimitExceeded
end

-- Tells whether a session has the last place without the privilege for that.
local function hasOthersPlace(reply)
    return reply.older ~= nil and reply.older.all >= contract.maxSessions - 1
        and not privileges.holds({ privilege = privileges.from(reply.privilege or "") },
            contract.privilege.configureManager)
end

-- Logs a session out again that its user must not have, so that one user cannot keep all others
-- out, and raises the problem. Temporary sessions make room for others anyway.
local function checkPlace(reply, isTemporary, deadline)
    local problem
    if not isTemporary and reply.older.ofUser >= settings.maxSessionsOfUser then
        problem = limitExceeded("This user has " .. settings.maxSessionsOfUser .. " of the "
            .. contract.maxSessions .. " sessions, which is the limit for one user. Log out of "
            .. "one of them, or wait until one has expired.", "too many sessions of this user")
    elseif hasOthersPlace(reply) and not temporary.makeRoom(deadline) then
        problem = limitExceeded("The last of the " .. contract.maxSessions .. " sessions is for "
            .. "users who can configure the manager. Log out of another session, or wait until "
            .. "one has expired.", "the last session is for managers")
    end
    if problem then
        requests.logOut(reply.location)
        error(problem)
    end
end

-- Raises the problem of a reply that is no success.
local function checkReply(reply, seconds)
    if reply.status == contract.status.authFailed then
        refusalSeconds = seconds
        error(wrongCredentials(reply.messages[1] and reply.messages))
    end
    local succeeded, problem = pcall(requests.expectSuccess, reply, clientFaults)
    if not succeeded then
        error(refusal(problem, reply.messages[1] and reply.messages[1].id), 0)
    end
end

-- Asks the service when the login's turn has come. Returns its reply, and how many seconds it took.
local function ask(login, record)
    awaitTurn(login)
    if login.isAlone and not requests.awaitEndings(login.deadline) then
        queue.leave(login)
        error(refusal(messages.unavailable(), "no turn in time"))
    end
    local start = ngx.now()
    local reply = requests.call("login", record, {
        deadline = login.deadline,
        whenDone = function(reply)
            if reply and reply.status == contract.status.authFailed then
                failures.add(login.network)
            end
            queue.leave(login)
        end,
    })
    return reply, ngx.now() - start
end

local function attempt(name, password, options)
    if #name > maxNameLength then
        error(refusal(messages.problem(400, {
            messages.new(contract.message.stringValueTooLong, "(user name)",
                tostring(maxNameLength)),
        }), "name too long"))
    end
    if name == "" then
        -- Nobody has this name. It takes as long as any other to be told so. It guesses nothing and
        -- waits for no turn: were it counted, it could keep all others of its network from theirs.
        ngx.sleep(refusalSeconds)
        error(wrongCredentials())
    end
    local encrypted = encrypt(password)
    if not encrypted then
        log.error("the key file is missing or malformed")
        error(messages.unavailable())
    end
    local login = {
        network = client.network(),
        deadline = options.deadline or ngx.now() + settings.answerTimeout,
        isGone = client.watch(),
        mayStart = options.mayStart,
        starts = options.starts,
    }
    local record = {
        [contract.request.privileges] = tostring(contract.privilege.login),
        [contract.request.address] = ngx.var.remote_addr,
        [contract.request.origin] = options.origin,
        [contract.credentials.user] = json.encode(name),
        [contract.credentials.password] = json.encode(encrypted),
    }
    local reply, seconds = ask(login, record)
    -- A place may have been taken by a session that is logged out again.
    while isFull(reply) and (not login.isAlone or temporary.makeRoom(login.deadline)) do
        login.isAlone = true
        reply, seconds = ask(login, record)
    end
    checkReply(reply, seconds)
    checkPlace(reply, options.origin == contract.temporaryOrigin, login.deadline)
    return reply
end

-- Logs in through the session service and returns its reply. Raises the problem that a refusal is,
-- and leaves a line in the log of refused logins. Options: origin (of the page that asks); or nil:
-- deadline; mayStart and starts, as the queue has them.
function logins.logIn(name, password, options)
    local succeeded, result = pcall(attempt, name, password, options)
    if not succeeded then
        local status = type(result) == "table" and result.status
        if status ~= messages.clientGoneStatus then
            ngx.var.refused_login = json.encodeAscii(messages.shown(name)) .. " "
                .. (status and result.reason or "unavailable")
        end
        error(result, 0)
    end
    return result
end

return logins
