-- Connections to the store. Each belongs to one request or timer at a time.
local redis = require "nginx.redis"
local files = require "files"
local settings = require "settings"

local store = {}

-- Milliseconds; the store is on this machine and answers at once or not at all.
local patience = 5000
local keptMilliseconds = 60000
local keptConnections = 32

local function password()
    return ((files.read(settings.storePasswordFile) or ""):gsub("\n$", ""))
end

-- Returns an open connection, or nil when the store cannot be reached.
function store.connect()
    local connection = redis:new()
    connection:set_timeout(patience)
    if not connection:connect("unix:" .. settings.storeSocket) then
        return nil
    end
    if connection:get_reused_times() == 0 then
        local secret = password()
        local accepted = secret == "" or connection:auth(secret)
        if not accepted then
            -- Without an answer it is nil.
            ngx.log(ngx.WARN, "the store ", accepted == false and "refuses the password"
                or "does not answer")
            connection:close()
            return nil
        end
    end
    return connection
end

-- Gives the connection back for the next user.
function store.release(connection)
    connection:set_keepalive(keptMilliseconds, keptConnections)
end

-- Calls action with a connection and returns its results. Raises the problem that `unavailable`
-- makes when the store cannot be reached; what action raises is raised again.
function store.with(unavailable, action)
    local connection = store.connect()
    if not connection then
        error(unavailable())
    end
    local results = { pcall(action, connection) }
    if not results[1] then
        -- Nobody knows what is still under way on it.
        connection:close()
        error(results[2], 0)
    end
    store.release(connection)
    return unpack(results, 2, table.maxn(results))
end

-- Runs one command. A value that is absent is nil, and so is one at a key of another kind. Raises
-- a text when the connection is lost or the store refuses: what it holds is not known then.
function store.run(connection, command, ...)
    local reply, failure = connection[command](connection, ...)
    if reply == ngx.null or reply == false and failure:find("WRONGTYPE", 1, true) then
        return nil
    end
    if not reply then
        error("store: " .. tostring(failure))
    end
    return reply
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
