-- Connections to the store: commands, several of them in one round trip, and scripts.
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

-- Returns the first word of an error reply, nil for any other reply. To the library, an error is
-- false with its text.
local function codeOf(reply)
    return type(reply) == "table" and reply[1] == false and reply[2]:match("^%S*") or nil
end

-- Returns a reply with false for what is absent. Raises the failure that it is, unless a key has
-- another type than the command's: that is as good as absent.
local function valueOf(reply)
    local code = codeOf(reply)
    if code == "WRONGTYPE" then
        return false
    elseif code then
        fail(code, reply[2])
    elseif type(reply) == "table" then
        for i, element in ipairs(reply) do
            reply[i] = element ~= ngx.null and element
        end
    end
    return reply ~= ngx.null and reply
end

-- Sends commands, each a list of words, in one round trip. Returns their replies in order: texts,
-- numbers, lists, and false for what is absent or of another type than the command's. A script that
-- the store does not know yet is sent to it.
function store.runAll(connection, commands)
    connection:init_pipeline(#commands)
    for _, command in ipairs(commands) do
        connection[command[1]](connection, unpack(command, 2))
    end
    local replies, failure = connection:commit_pipeline()
    if not replies then
        fail(nil, failure)
    end
    for i, command in ipairs(commands) do
        if command.source and codeOf(replies[i]) == "NOSCRIPT" then
            local whole = { "EVAL", command.source, unpack(command, 3) }
            replies[i] = store.runAll(connection, { whole })[1]
        else
            replies[i] = valueOf(replies[i])
        end
    end
    return replies
end

-- Runs one command. Returns nil for a value that is absent or of another type than the command's.
function store.run(connection, ...)
    return store.runAll(connection, { { ... } })[1] or nil
end

-- Returns an open connection, as the library has it, for one request or timer at a time.
function store.connect()
    local connection = redis:new()
    connection:set_timeout(timeoutMilliseconds)
    local connected, failure = connection:connect("unix:" .. settings.storeSocket)
    if not connected then
        fail(nil, failure)
    end
    if connection:get_reused_times() == 0 then
        local password = (files.read(settings.storePasswordFile) or ""):gsub("\n$", "")
        if password ~= "" then
            store.run(connection, "AUTH", password)
        end
    end
    return connection
end

-- Returns a connection whose read_reply hears what is published on the channels of a pattern.
function store.subscribe(pattern)
    local connection = store.connect()
    local confirmed, failure = connection:psubscribe(pattern)
    if not confirmed then
        fail(codeOf({ confirmed, failure }), failure)
    end
    return connection
end

-- Calls action with a connection and returns its result. What action raises is raised again.
function store.with(action)
    local connection = store.connect()
    local succeeded, result = pcall(action, connection)
    if not succeeded or ngx.worker.exiting() then
        -- A reply may still be under way on it, or the pool has been closed already.
        connection:close()
    else
        connection:set_keepalive(idleMilliseconds, maxIdleConnections)
    end
    if not succeeded then
        error(result, 0)
    end
    return result
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

-- Returns a script. In its source, $a.b stands for the text contract.a.b.
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

-- Returns the command that calls a script by its digest, with keys and arguments. Keys that are
-- only read are arguments: access control takes keys for written.
function store.call(script, keyCount, ...)
    return { "EVALSHA", script.digest, keyCount, source = script.source, ... }
end

-- Returns what a script's result stands for.
store.decode = cjson.decode

-- Runs a script whose result is JSON text or nothing. Returns what that stands for, or nil.
function store.runScript(script, keyCount, ...)
    local command = store.call(script, keyCount, ...)
    return store.with(function(connection)
        local reply = store.runAll(connection, { command })[1]
        return reply and store.decode(reply)
    end) or nil
end

return store
