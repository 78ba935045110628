-- Changes to the session service's settings.
local contract = require "contract"
local exchange = require "exchange"
local json = require "json"
local messages = require "messages"
local resources = require "resources"
local store = require "store"

local service = {}

local shortest = 30
local longest = 86400

-- A value as a message shows it.
local function shown(value)
    if type(value) == "table" then
        return "(value)"
    end
    return type(value) == "string" and value or json.encode(value)
end

-- Each property that can be queued: returns the text to store, or the message's identifier.
local writable = {
    SessionTimeout = function(value)
        if type(value) ~= "number" or value ~= math.floor(value) then
            return nil, "Base.1.12.PropertyValueTypeError"
        elseif value < shortest or value > longest then
            return nil, "Base.1.12.PropertyValueOutOfRange"
        end
        return string.format("%d", value)
    end,
    ServiceEnabled = function(value)
        if type(value) ~= "boolean" then
            return nil, "Base.1.12.PropertyValueTypeError"
        end
        return tostring(value)
    end,
}

-- What the schema has besides, whether or not it stands in the store.
local readOnly = {
    Actions = true,
    Description = true,
    Id = true,
    Name = true,
    Oem = true,
    Sessions = true,
    Status = true,
}

-- Sorts the properties of a body: returns those to queue, and messages about the others.
local function sort(body, resource)
    local queued = {}
    local faults = {}
    local properties = 0
    local known = {}
    for name in pairs(resource.fields) do
        known[name:match("^&&%a+ ([^ ]+) ") or name] = true
    end
    for property, value in pairs(body) do
        -- Annotations come back from a client that sends what it has read; they change nothing.
        if not property:find("@") then
            properties = properties + 1
            if writable[property] then
                local text, id = writable[property](value)
                queued[property] = text
                if not text then
                    messages.add(faults, property, id, shown(value), property)
                end
            elseif readOnly[property] or known[property] and property:sub(1, 2) ~= "&&" then
                messages.add(faults, property, "Base.1.12.PropertyNotWritable", property)
            else
                messages.add(faults, property, "Base.1.12.PropertyUnknown", property)
            end
        end
    end
    return queued, faults, properties
end

-- Answers a PATCH of the service: 200 with what can be changed changed and messages about the
-- rest; 400 when nothing can be.
function service.patch(body, resource)
    if next(body) == nil then
        error(messages.problem(400, { messages.new("Base.1.12.EmptyJSON") }))
    end
    local queued, faults, properties = sort(body, resource)
    if properties == 0 then
        error(messages.problem(400, { messages.new("Base.1.12.NoOperation") }))
    end
    if next(queued) == nil then
        error(messages.problem(400, faults))
    end

    local checklist = {}
    for property in pairs(queued) do
        checklist["/" .. property] = ""
    end
    local reply = exchange.call("patch", {
        ["&&RequestMethod"] = "PATCH",
        ["&&TargetURI"] = contract.service,
    }, queued, checklist)
    exchange.expectSuccess(reply, {})

    local applied = false
    for property in pairs(queued) do
        if reply.unhandled[property] then
            messages.add(faults, property, "Base.1.12.PropertyNotWritable", property)
        else
            applied = true
        end
    end
    if not applied then
        error(messages.problem(400, faults))
    end

    local annotations = {}
    for _, fault in ipairs(faults) do
        annotations[fault.property .. "@Message.ExtendedInfo"] = messages.texts({ fault })
    end
    local changed, text
    store.with(messages.unavailable, function(connection)
        changed = resources.read(connection, contract.service) or resource
        text = resources.text(connection, changed, annotations)
    end)
    return {
        status = 200,
        headers = { ETag = changed.etagHeader },
        type = changed.type,
        body = text,
    }
end

return service
