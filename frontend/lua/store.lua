-- Connections to the store, and the scripts that run in it.
local redis = require "nginx.redis"
local cjson = require("cjson").new()
local contract = require "contract"
local files = require "files"
local hex = require "hex"
local settings = require "settings"

local store = {}

-- The store is on this machine and answers at once or not at all.
local timeoutMilliseconds = 5000
local idleMilliseconds = 60000
local maxIdleConnections = 32

-- Raises a failure of the store: `code` is the first word of an error reply, nil when the
-- connection failed.
local function fail(code, text)
    error({ storeFailure = true, code = code, text = text }, 0)
end

-- Tells whether what was raised is a failure of the store.
function store.hasFailed(problem)
    return type(problem) == "table" and problem.storeFailure == true
end

local function readPassword()
    return ((files.read(settings.storePasswordFile) or ""):gsub("\n$", ""))
end

local function authenticate(connection)
    local password = readPassword()
    if password == "" then
        return
    end
    local accepted, failure = connection:auth(password)
    if not accepted then
        connection:close()
        fail(nil, accepted == false and "it refuses the password" or failure)
    end
end

-- Returns an open connection, for one request or timer at a time.
function store.connect()
    local connection = redis:new()
    connection:set_timeout(timeoutMilliseconds)
    local connected, failure = connection:connect("unix:" .. settings.storeSocket)
    if not connected then
        fail(nil, failure)
    end
    if connection:get_reused_times() == 0 then
        authenticate(connection)
    end
    return connection
end

-- Calls action with a connection and returns its result. What action raises is raised again.
function store.with(action)
    local connection = store.connect()
    local succeeded, result = pcall(action, connection)
    if not succeeded then
        -- A reply may still be under way on it.
        connection:close()
        error(result, 0)
    end
    if ngx.worker.exiting() then
        -- The pool has been closed already.
        connection:close()
    else
        connection:set_keepalive(idleMilliseconds, maxIdleConnections)
    end
    return result
end

-- Runs one command. Returns nil for a value that is absent or of another type than the command's.
function store.run(connection, command, ...)
    local reply, failure = connection[command](connection, ...)
    if reply then
        return reply ~= ngx.null and reply or nil
    end
    local code = reply == false and failure:match("^%S*") or nil
    if code == "WRONGTYPE" then
        return nil
    end
    fail(code, failure)
end

-- What all scripts can call.
local library = [==[
-- Runs a command. Returns false for a value that is absent or of another type than the command's.
local function run(...)
    local reply = redis.pcall(...)
    if type(reply) == 'table' and reply.err then
        if string.sub(reply.err, 1, 9) == 'WRONGTYPE' then
            return false
        end
        error(reply.err)
    end
    return reply
end
-- Returns the fields of a hash.
local function hash(key)
    local reply = run('HGETALL', key) or {}
    local fields = {}
    for i = 1, #reply, 2 do
        fields[reply[i]] = reply[i + 1]
    end
    return fields
end
]==]

-- Returns a script whose result is JSON text or nothing. In its source, $a.b stands for the text
-- contract.a.b.
function store.script(source)
    source = (library .. source):gsub("%$([%a.]+)", function(path)
        local value = contract
        for name in path:gmatch("%a+") do
            value = value[name]
        end
        return string.format("%q", value)
    end)
    return { source = source, digest = hex(ngx.sha1_bin(source)) }
end

-- Runs a script in one round trip; a store that does not know it yet gets its text. Keys that are
-- only read are arguments: access control takes keys for written. Returns what the result stands
-- for, or nil.
function store.runScript(connection, script, keyCount, ...)
    local reply, failure = connection:evalsha(script.digest, keyCount, ...)
    if reply == false and failure:find("^NOSCRIPT") then
        reply = store.run(connection, "eval", script.source, keyCount, ...)
    elseif not reply then
        fail(reply == false and failure:match("^%S*") or nil, failure)
    end
    return reply and reply ~= ngx.null and cjson.decode(reply) or nil
end

return store
