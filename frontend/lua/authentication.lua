-- Who sends a request.
local ffi = require "ffi"
local contract = require "contract"
local encipher = require "encipher"
local exchange = require "exchange"
local json = require "json"
local messages = require "messages"
local store = require "store"

local authentication = {}

-- The record is as large as the kernel makes it on 64-bit machines, and more.
ffi.cdef [[
struct frontend_sysinfo { long uptime; char rest[504]; };
int sysinfo(struct frontend_sysinfo *info);
]]
local information = ffi.new("struct frontend_sysinfo")

-- Seconds since the machine started: the clock of LastAccessed.
local function uptime()
    ffi.C.sysinfo(information)
    return tonumber(information.uptime)
end

-- Reads a token record and notes the use of its session, in one step: a session that ends in
-- between must not come into being again as a record of nothing but its last use.
local use = [[
local record = redis.call('HMGET', KEYS[1], 'UserName', 'Privilege', 'SessionID', 'LastAccessed',
    'Timeout', '&&Origin')
if not record[1] or not record[3] then
    return false
end
local function number(text)
    return tonumber(string.match(text or '', '^%s*[-+]?%d+') or 0)
end
if tonumber(ARGV[1]) - number(record[4]) >= number(record[5]) then
    return false
end
redis.call('HSET', KEYS[1], 'LastAccessed', ARGV[1])
return {record[1], record[2] or '', record[3], record[6] or '',
    redis.call('HEXISTS', KEYS[1], '&&PasswordChangeRequired')}
]]

local largestPrivilege = 2147483647

local function unauthorized(id)
    return messages.problem(401, { messages.new(id) },
        { ["WWW-Authenticate"] = 'Basic realm="Redfish"' })
end

local function userOf(connection, token)
    if not token:find("^%x+$") or #token ~= 64 then
        error(unauthorized("Base.1.12.NoValidSession"))
    end
    local record = store.run(connection, "eval", use, 1, contract.tokenKey(token), uptime())
    if not record then
        error(unauthorized("Base.1.12.NoValidSession"))
    end
    local privilege = tonumber(record[2]:match("^%s*(%d+)")) or 0
    return {
        name = record[1],
        -- The session service, too, takes a number beyond 32 bits for none.
        privilege = privilege <= largestPrivilege and privilege or 0,
        session = record[3],
        origin = record[4],
        mustChangePassword = record[5] == 1,
    }
end

-- The failures of a login that the client can mend.
local clientFaults = { ["Base.1.12.StringValueTooLong"] = true }

-- A name goes into logs, of which there may be little room.
local maxNameLength = 255

-- Logs in through the session service. Returns its reply; raises the problem that a refusal is.
function authentication.login(name, password)
    if #name > maxNameLength then
        error(messages.problem(400, {
            messages.new("Base.1.12.StringValueTooLong", "(user name)", tostring(maxNameLength)),
        }))
    end
    local enciphered = encipher(password)
    if not enciphered then
        ngx.log(ngx.ERR, "the key file is missing or malformed")
        error(messages.unavailable())
    end
    local reply = exchange.call("login", {
        ["&&OperationPrivileges"] = tostring(contract.privilege.login),
        ["&&RemoteIP"] = ngx.var.remote_addr,
        ["&&Origin"] = ngx.var.http_origin or "",
    }, {
        UserName = json.encode(name),
        Password = json.encode(enciphered),
    })
    if reply.status == "AUTH_FAILED" then
        local problem = unauthorized("ExtendedError.1.2.InvalidCredentials")
        problem.messages = #reply.messages > 0 and reply.messages or problem.messages
        error(problem)
    end
    exchange.expectSuccess(reply, clientFaults)
    return reply
end

-- Takes a Basic header apart. Returns nothing when it is malformed.
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
-- removed with it. Raises the problem 401 when there is none.
function authentication.identify(connection)
    local token = ngx.var.http_x_auth_token
    local header = ngx.var.http_authorization
    local user
    if token then
        user = userOf(connection, token)
    elseif header then
        local name, password = basicCredentials(header)
        if not name then
            error(unauthorized("ExtendedError.1.2.InvalidCredentials"))
        end
        local reply = authentication.login(name, password)
        local fine, found = pcall(userOf, connection, reply.token)
        if not fine then
            exchange.logOut(reply.location)
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
