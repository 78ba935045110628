-- Who sends a request.
local ffi = require "ffi"
local contract = require "contract"
local logins = require "logins"
local messages = require "messages"
local privileges = require "privileges"
local resources = require "resources"
local settings = require "settings"
local store = require "store"
local temporary = require "temporary_sessions"

local authentication = {}

local noValidSession = "Base.1.12.NoValidSession"

-- The rest is larger than what the kernel writes.
ffi.cdef [[
struct frontend_sysinfo { long uptime; char rest[504]; };
int sysinfo(struct frontend_sysinfo *info);
]]
local systemInformation = ffi.new("struct frontend_sysinfo")

-- Seconds since the machine started: the clock of LastAccessed.
local function uptime()
    ffi.C.sysinfo(systemInformation)
    return tonumber(systemInformation.uptime)
end

local field = contract.token
local recordFields = {
    field.user, field.privilege, field.session, field.origin, field.passwordChangeRequired,
}

-- Key: a token's record. Argument: the uptime. Looking up and noting the use are one step: a record
-- that is removed in between must not come back with nothing but its use.
local useScript = store.script([[
local record = run('HMGET', KEYS[1], $token.user, $token.privilege, $token.session, $token.origin,
    $token.passwordChangeRequired, $token.lastAccessed, $token.timeout)
if not record or not record[1] or not record[3] then
    return false
end
local function number(text)
    return tonumber(string.match(text or '', '^%s*[-+]?%d+') or 0)
end
if tonumber(ARGV[1]) - number(record[6]) >= number(record[7]) then
    return false
end
redis.call('HSET', KEYS[1], $token.lastAccessed, ARGV[1])
return record
]])

-- The tokens whose use has been noted in this second: they only have to be there still.
local used = {}
local usedSecond = 0

local function lookUpCommand(key, now)
    if usedSecond ~= now then
        used = {}
        usedSecond = now
    end
    return used[key] and { "HMGET", key, unpack(recordFields) }
        or store.call(useScript, 1, key, now)
end

local function unauthorized(id)
    return messages.unauthorized({ messages.new(id) })
end

-- Returns the user of a token, with the resource at an address as this method needs it. Raises the
-- problem 401 when the token is not valid.
local function userOf(token, uri, method)
    if not token:find("^%x+$") or #token ~= contract.tokenLength then
        error(unauthorized(noValidSession))
    end
    local key = contract.tokenKey(token)
    local now = uptime()
    local command, from = resources.reading(uri, method)
    local commands = { lookUpCommand(key, now), command }
    local replies = store.with(function(connection)
        return store.runAll(connection, commands)
    end)
    local record = replies[1]
    if not record or not record[1] or not record[3] then
        local problem = unauthorized(noValidSession)
        problem.isInvalidToken = true
        error(problem)
    end
    used[key] = usedSecond == now or nil
    return {
        name = record[1],
        privilege = privileges.from(record[2] or ""),
        session = record[3],
        origin = record[4] or "",
        mustChangePassword = record[5] ~= false and record[5] ~= nil,
        resource = from(replies[2], uri),
    }
end

-- Returns the name and the password of a Basic header, nil when it is malformed.
local function basicCredentials(header)
    local encoded = header:match("^[Bb][Aa][Ss][Ii][Cc] +(%S+) *$")
    local decoded = encoded and ngx.decode_base64(encoded)
    if not decoded or decoded:find("%z") then
        return nil
    end
    return decoded:match("^([^:]*):(.*)$")
end

-- Returns the user of a request with credentials; `temporary` is the session that it shares.
local function userOfCredentials(name, password, uri, method, deadline)
    local session = temporary.take(name, password, deadline, function(mayStart, starts)
        return logins.logIn(name, password, {
            origin = contract.temporaryOrigin,
            deadline = deadline,
            mayStart = mayStart,
            starts = starts,
        })
    end)
    local succeeded, user = pcall(userOf, session.token, uri, method)
    if not succeeded then
        temporary.release(session, type(user) == "table" and user.isInvalidToken)
        error(user, 0)
    end
    user.temporary = session
    return user
end

-- Returns the user of this request, with the resource at an address as this method needs it:
--   name, privilege, session (an address), mustChangePassword, resource (nil when there is none)
-- authentication.release has to follow. Raises the problem 401 when there is no such user, 403 when
-- the request comes from another origin than the login.
function authentication.identify(uri, method)
    local token = ngx.var.http_x_auth_token
    if token then
        local user = userOf(token, uri, method)
        local origin = ngx.var.http_origin
        if user.origin ~= "" and origin and origin ~= user.origin then
            error(messages.problem(403, { messages.new("Base.1.12.AccessDenied", ngx.var.uri) }))
        end
        return user
    end
    local header = ngx.var.http_authorization
    if not header then
        error(unauthorized(noValidSession))
    end
    local name, password = basicCredentials(header)
    if not name then
        error(unauthorized(contract.message.invalidCredentials))
    end
    local deadline = ngx.now() + settings.answerTimeout
    local succeeded, user = pcall(userOfCredentials, name, password, uri, method, deadline)
    if not succeeded and type(user) == "table" and user.isInvalidToken then
        -- The shared session has ended meanwhile.
        return userOfCredentials(name, password, uri, method, deadline)
    elseif not succeeded then
        error(user, 0)
    end
    return user
end

-- Ends what the request of a user needed.
function authentication.release(user)
    if user.temporary then
        temporary.release(user.temporary)
    end
end

return authentication
