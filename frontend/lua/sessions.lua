-- Logging in and out.
local client = require "client"
local contract = require "contract"
local logins = require "logins"
local messages = require "messages"
local requests = require "requests"
local resources = require "resources"

local sessions = {}

-- The other properties of a session, which the service sets.
local readOnly = {
    ClientOriginIPAddress = true,
    CreatedTime = true,
    Description = true,
    Id = true,
    Name = true,
    Roles = true,
    SessionType = true,
}

local credentials = contract.credentials

-- Returns messages about what is wrong with the body of a login.
local function faultsOf(body)
    local faults = {}
    for _, property in ipairs({ credentials.user, credentials.password }) do
        local value = body[property]
        if value == nil then
            messages.add(faults, property, "Base.1.12.PropertyMissing", property)
        elseif type(value) ~= "string" then
            -- The value may be a secret.
            messages.add(faults, property, "Base.1.12.PropertyValueTypeError", "(value)", property)
        elseif value:find("%z") then
            -- To the service, a text ends at its first zero byte.
            messages.add(faults, property, "Base.1.12.PropertyValueFormatError", "(value)",
                property)
        end
    end
    for property in pairs(body) do
        if readOnly[property] then
            messages.add(faults, property, "Base.1.12.PropertyNotWritable", property)
        elseif property ~= credentials.user and property ~= credentials.password
            and not property:find("@") then
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
    local isGone = client.watch()
    local reply = logins.logIn(body[credentials.user], body[credentials.password],
        { origin = client.origin() })
    if isGone() then
        -- Nobody would hold the session.
        requests.logOut(reply.location)
        error(messages.clientGone())
    end
    local annotations = {}
    if reply.messages[1] and reply.messages[1].id == contract.message.passwordChangeRequired then
        annotations["@Message.ExtendedInfo"] = messages.texts(reply.messages)
    end
    local session = resources.from(reply.resource, reply.location)
    if not session then
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
        body = resources.text(session, annotations),
    }
end

-- Messages of failed logouts that are the client's fault.
local clientFaults = { [contract.message.unprocessableEntity] = true }

-- Removes a session through the service.
function sessions.remove(uri)
    local reply = requests.call("logout", { [contract.request.target] = uri }, {})
    requests.expectSuccess(reply, clientFaults)
end

return sessions
