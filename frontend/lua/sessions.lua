-- Logging in and out.
local authentication = require "authentication"
local exchange = require "exchange"
local messages = require "messages"
local resources = require "resources"
local store = require "store"

local sessions = {}

-- The other properties of a session; the service gives them.
local readOnly = {
    ClientOriginIPAddress = true,
    CreatedTime = true,
    Description = true,
    Id = true,
    Name = true,
    Roles = true,
    SessionType = true,
}

-- Returns the list of what is wrong with the body of a login.
local function faultsOf(body)
    local faults = {}
    for _, property in ipairs({ "UserName", "Password" }) do
        local value = body[property]
        if value == nil then
            messages.add(faults, property, "Base.1.12.PropertyMissing", property)
        elseif type(value) ~= "string" then
            -- Whatever it is, it may be a secret.
            messages.add(faults, property, "Base.1.12.PropertyValueTypeError", "(value)", property)
        elseif value:find("%z") then
            -- The service would take what stands before the zero byte for the whole.
            messages.add(faults, property, "Base.1.12.PropertyValueFormatError", "(value)",
                property)
        end
    end
    for property in pairs(body) do
        if readOnly[property] then
            messages.add(faults, property, "Base.1.12.PropertyNotWritable", property)
        elseif property ~= "UserName" and property ~= "Password" and not property:find("@") then
            messages.add(faults, property, "Base.1.12.PropertyUnknown", property)
        end
    end
    return faults
end

-- Answers a login.
function sessions.create(body)
    local faults = faultsOf(body)
    if #faults > 0 then
        error(messages.problem(400, faults))
    end
    local reply = authentication.login(body.UserName, body.Password)
    local annotations = {}
    if reply.messages[1] and reply.messages[1].id == "Base.1.12.PasswordChangeRequired" then
        annotations["@Message.ExtendedInfo"] = messages.texts(reply.messages)
    end
    local text, session
    local fine, failure = pcall(store.with, messages.unavailable, function(connection)
        session = resources.read(connection, reply.location)
        text = session and resources.text(connection, session, annotations)
    end)
    if not fine then
        exchange.logOut(reply.location)
        error(failure, 0)
    end
    if not text then
        -- It has expired or been removed already.
        error(messages.unavailable())
    end
    return {
        status = 201,
        headers = {
            ["Location"] = reply.location,
            ["X-Auth-Token"] = reply.token,
            ["ETag"] = session.etagHeader,
        },
        type = session.type,
        body = text,
    }
end

-- The failures of a logout that the client can mend.
local clientFaults = { ["ExtendedError.1.2.UnprocessableEntity"] = true }

-- Removes a session through the service.
function sessions.remove(uri)
    local reply = exchange.call("logout", { ["&&TargetURI"] = uri })
    exchange.expectSuccess(reply, clientFaults)
end

return sessions
