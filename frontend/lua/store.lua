-- Connections to the store: commands, several of them in one round trip, and scripts.
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
local maxBytesAtOnce = 65536

-- Raises a failure of the store: `code` is the first word of an error reply, nil when the
-- connection failed.
local function fail(code, text)
    error({ storeFailure = true, code = code, text = text }, 0)
end

-- Tells whether what was raised is a failure of the store.
function store.hasFailed(problem)
    return type(problem) == "table" and problem.storeFailure == true
end

local function encode(words)
    local parts = { "*" .. #words .. "\r\n" }
    for i, word in ipairs(words) do
        word = tostring(word)
        parts[i + 1] = "$" .. #word .. "\r\n" .. word .. "\r\n"
    end
    return table.concat(parts)
end

-- Reads one reply from a text: returns the position behind it and the reply. Returns nothing when
-- the text ends too early. What is absent is false, an error a table with the field failure.
local function decode(text, position)
    local lineEnd = text:find("\r\n", position, true)
    if not lineEnd then
        return nil
    end
    local kind = text:sub(position, position)
    local line = text:sub(position + 1, lineEnd - 1)
    position = lineEnd + 2
    if kind == "+" then
        return position, line
    elseif kind == "-" then
        return position, { failure = line }
    end
    local number = tonumber(line)
    if kind == ":" then
        return position, number
    elseif number < 0 then
        return position, false
    elseif kind == "$" then
        if #text < position + number + 1 then
            return nil
        end
        return position + number + 2, text:sub(position, position + number - 1)
    end
    local elements = {}
    for i = 1, number do
        position, elements[i] = decode(text, position)
        if not position then
            return nil
        end
    end
    return position, elements
end

-- Receives the next reply. Returns nil and why when none comes: what has come of it is kept.
function store.receive(connection)
    while true do
        local position, reply = decode(connection.received, 1)
        if position then
            connection.received = connection.received:sub(position)
            return reply
        end
        local bytes, failure = connection.socket:receiveany(maxBytesAtOnce)
        if not bytes then
            return nil, failure
        end
        connection.received = connection.received .. bytes
    end
end

local function send(connection, text)
    local sent, failure = connection.socket:send(text)
    if not sent then
        fail(nil, failure)
    end
end

local function receive(connection)
    local reply, failure = store.receive(connection)
    if reply == nil then
        fail(nil, failure)
    end
    return reply
end

-- Returns what a reply means. Raises the failure that it is, unless a key has another type than the
-- command's: that is as good as absent.
local function valueOf(reply)
    local failure = type(reply) == "table" and reply.failure
    if not failure then
        return reply or nil
    end
    local code = failure:match("^%S*")
    if code ~= "WRONGTYPE" then
        fail(code, failure)
    end
    return nil
end

-- Sends commands, each a list of words, in one round trip. Returns their replies in order: texts,
-- numbers, lists, and false for what is absent or of another type than the command's. A script that
-- the store does not know yet is sent to it.
function store.runAll(connection, commands)
    local texts = {}
    for i, command in ipairs(commands) do
        texts[i] = encode(command)
    end
    send(connection, table.concat(texts))
    local replies = {}
    for i in ipairs(commands) do
        replies[i] = receive(connection)
    end
    for i, command in ipairs(commands) do
        local reply = replies[i]
        if command.source and type(reply) == "table" and reply.failure
            and reply.failure:find("^NOSCRIPT") then
            send(connection, encode({ "EVAL", command.source, unpack(command, 3) }))
            reply = receive(connection)
        end
        replies[i] = valueOf(reply) or false
    end
    return replies
end

-- Runs one command. Returns nil for a value that is absent or of another type than the command's.
function store.run(connection, ...)
    return store.runAll(connection, { { ... } })[1] or nil
end

-- Returns an open connection, for one request or timer at a time.
function store.connect()
    local connection = { socket = ngx.socket.tcp(), received = "" }
    connection.socket:settimeout(timeoutMilliseconds)
    local connected, failure = connection.socket:connect("unix:" .. settings.storeSocket)
    if not connected then
        fail(nil, failure)
    end
    if connection.socket:getreusedtimes() == 0 then
        local password = (files.read(settings.storePasswordFile) or ""):gsub("\n$", "")
        if password ~= "" then
            store.run(connection, "AUTH", password)
        end
    end
    return connection
end

-- Calls action with a connection and returns its result. What action raises is raised again.
function store.with(action)
    local connection = store.connect()
    local succeeded, result = pcall(action, connection)
    if not succeeded or ngx.worker.exiting() then
        -- A reply may still be under way on it, or the pool has been closed already.
        connection.socket:close()
    else
        connection.socket:setkeepalive(idleMilliseconds, maxIdleConnections)
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
