-- Who sends a request.
local ffi = require "ffi"
local contract = require "contract"
local encrypt = require "encrypt"
local json = require "json"
local messages = require "messages"
local requests = require "requests"
local store = require "store"

local authentication = {}

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

local token = contract.token
local lookUpFields = {
    token.user, token.privilege, token.session, token.lastAccessed, token.timeout, token.origin,
    token.passwordChangeRequired,
}

-- Reads a token's record and notes its use, in one step: a record that is removed in between must
-- not come back with nothing but its last use. Arguments: the uptime and the fields above.
local lookUpScript = [[
local record = redis.call('HMGET', KEYS[1], unpack(ARGV, 2))
if not record[1] or not record[3] then
    return false
end
local function number(text)
    return tonumber(string.match(text or '', '^%s*[-+]?%d+') or 0)
end
if tonumber(ARGV[1]) - number(record[4]) >= number(record[5]) then
    return false
end
redis.call('HSET', KEYS[1], ARGV[5], ARGV[1])
return {record[1], record[2] or '', record[3], record[6] or '', record[7] and 1 or 0}
]]

local function unauthorized(id)
    return messages.problem(401, { messages.new(id) },
        { ["WWW-Authenticate"] = 'Basic realm="Redfish"' })
end

local function userOf(connection, text)
    if not text:find("^%x+$") or #text ~= contract.tokenLength then
        error(unauthorized("Base.1.12.NoValidSession"))
    end
    local record = store.run(connection, "eval", lookUpScript, 1, contract.tokenKey(text), uptime(),
        unpack(lookUpFields))
    if not record then
        error(unauthorized("Base.1.12.NoValidSession"))
    end
    local privilege = tonumber(record[2]:match("^%s*(%d+)")) or 0
    return {
        name = record[1],
        privilege = privilege <= contract.maxPrivilege and privilege or 0,
        session = record[3],
        origin = record[4],
        mustChangePassword = record[5] == 1,
    }
end

-- Messages of failed logins that are the client's fault.
local clientFaults = { [contract.message.stringValueTooLong] = true }

-- Names go into logs, for which there may be little room.
local maxNameLength = 255

-- Logs in through the session service. Returns its reply; raises the problem that a refusal is.
function authentication.login(name, password)
    if #name > maxNameLength then
        error(messages.problem(400, {
            messages.new(contract.message.stringValueTooLong, "(user name)",
                tostring(maxNameLength)),
        }))
    end
    local encrypted = encrypt(password)
    if not encrypted then
        ngx.log(ngx.ERR, "the key file is missing or malformed")
        error(messages.unavailable())
    end
    local reply = requests.call("login", {
        [contract.request.privileges] = tostring(contract.privilege.login),
        [contract.request.address] = ngx.var.remote_addr,
        [contract.request.origin] = ngx.var.http_origin or "",
    }, {
        [contract.credentials.user] = json.encode(name),
        [contract.credentials.password] = json.encode(encrypted),
    })
    if reply.status == contract.status.authFailed then
        local problem = unauthorized(contract.message.invalidCredentials)
        problem.messages = #reply.messages > 0 and reply.messages or problem.messages
        error(problem)
    end
    requests.expectSuccess(reply, clientFaults)
    return reply
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

-- Returns the user of this request: name, privilege, session (an address), mustChangePassword,
-- and `temporary` when the session was made for this request alone (HTTP Basic) and has to be
-- removed with it. Raises the problem 401 when there is no such user, 403 when the request comes
-- from another origin than the login.
function authentication.identify(connection)
    local sentToken = ngx.var.http_x_auth_token
    local header = ngx.var.http_authorization
    local user
    if sentToken then
        user = userOf(connection, sentToken)
    elseif header then
        local name, password = basicCredentials(header)
        if not name then
            error(unauthorized(contract.message.invalidCredentials))
        end
        local reply = authentication.login(name, password)
        local succeeded, found = pcall(userOf, connection, reply.token)
        if not succeeded then
            requests.logOut(reply.location)
            error(found, 0)
        end
        user = found
        user.temporary = true
    else
        error(unauthorized("Base.1.12.NoValidSession"))
    end
    local origin = ngx.var.http_origin
    if user.origin ~= "" and origin and origin ~= user.origin then
        error(messages.problem(403, { messages.new("Base.1.12.AccessDenied", ngx.var.uri) }))
    end
    return user
end

return authentication
