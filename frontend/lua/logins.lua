-- Logging in, from the credentials to the session.
local client = require "client"
local contract = require "contract"
local encrypt = require "encrypt"
local failures = require "failures"
local json = require "json"
local messages = require "messages"
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

local function isLimitExceeded(reply)
    local first = reply.messages[1]
    return first and first.id == contract.message.sessionLimitExceeded
end

-- Raises the problem of a reply that is no success.
local function checkReply(reply, network, seconds)
    if reply.status == contract.status.authFailed then
        failures.add(network)
        refusalSeconds = seconds
        error(wrongCredentials(reply.messages[1] and reply.messages))
    end
    local succeeded, problem = pcall(requests.expectSuccess, reply, clientFaults)
    if not succeeded then
        error(refusal(problem, reply.messages[1] and reply.messages[1].id), 0)
    end
end

local function attempt(name, password, options)
    if #name > maxNameLength then
        error(refusal(messages.problem(400, {
            messages.new(contract.message.stringValueTooLong, "(user name)",
                tostring(maxNameLength)),
        }), "name too long"))
    end
    local network = client.network()
    if name == "" then
        -- Nobody has this name. It takes as long as any other to be told so.
        failures.add(network)
        ngx.sleep(refusalSeconds)
        error(wrongCredentials())
    end
    local encrypted = encrypt(password)
    if not encrypted then
        ngx.log(ngx.ERR, "the key file is missing or malformed")
        error(messages.unavailable())
    end
    local deadline = ngx.now() + settings.answerTimeout
    local start, reply
    repeat
        awaitTurn({
            network = network,
            deadline = deadline,
            isGone = client.watch(),
            mayStart = options.mayStart,
            starts = options.starts,
        })
        start = ngx.now()
        reply = requests.call("login", {
            [contract.request.privileges] = tostring(contract.privilege.login),
            [contract.request.address] = ngx.var.remote_addr,
            [contract.request.origin] = options.origin,
        }, {
            body = {
                [contract.credentials.user] = json.encode(name),
                [contract.credentials.password] = json.encode(encrypted),
            },
            deadline = deadline,
            whenDone = queue.leave,
        })
    until not isLimitExceeded(reply) or not temporary.makeRoom(deadline)
    checkReply(reply, network, ngx.now() - start)
    return reply
end

-- Logs in through the session service and returns its reply. Raises the problem that a refusal is,
-- and leaves a line in the log of refused logins. Options: origin (of the page that asks); mayStart
-- and starts, as the queue has them, or nil.
function logins.logIn(name, password, options)
    local succeeded, result = pcall(attempt, name, password, options)
    if not succeeded then
        local status = type(result) == "table" and result.status
        if status ~= messages.clientGoneStatus then
            ngx.var.refused_login = json.encodeAscii(name) .. " "
                .. (status and result.reason or "unavailable")
        end
        error(result, 0)
    end
    return result
end

return logins
