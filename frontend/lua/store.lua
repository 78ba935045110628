-- Connections to the store. Each belongs to one request or timer at a time.
local redis = require "nginx.redis"
local files = require "files"
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

-- Returns an open connection.
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

-- Gives the connection back for the next user.
function store.release(connection)
    connection:set_keepalive(idleMilliseconds, maxIdleConnections)
end

-- Calls action with a connection and returns its results. What action raises is raised again.
function store.with(action)
    local connection = store.connect()
    local results = { pcall(action, connection) }
    if not results[1] then
        -- A reply may still be under way on it.
        connection:close()
        error(results[2], 0)
    end
    store.release(connection)
    return unpack(results, 2, table.maxn(results))
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

-- Returns the fields of a hash; nil when there is no such hash.
function store.hash(connection, key)
    local reply = store.run(connection, "hgetall", key)
    if not reply or #reply == 0 then
        return nil
    end
    local fields = {}
    for i = 1, #reply, 2 do
        fields[reply[i]] = reply[i + 1]
    end
    return fields
end

return store
