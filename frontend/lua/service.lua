-- Changes to the session service's settings.
local contract = require "contract"
local json = require "json"
local messages = require "messages"
local requests = require "requests"
local resources = require "resources"

local service = {}

local property = contract.property

-- Returns a value as a message's argument.
local function argumentOf(value)
    if type(value) == "table" then
        return "(value)"
    end
    return type(value) == "string" and value or json.encode(value)
end

-- For each property that can be changed: returns the text to store, or nil and the identifier of
-- the message that says what is wrong.
local writable = {
    [property.timeout] = function(value)
        if type(value) ~= "number" or value ~= math.floor(value) then
            return nil, "Base.1.12.PropertyValueTypeError"
        elseif value < contract.minTimeout or value > contract.maxTimeout then
            return nil, "Base.1.12.PropertyValueOutOfRange"
        end
        return string.format("%d", value)
    end,
    [property.enabled] = function(value)
        if type(value) ~= "boolean" then
            return nil, "Base.1.12.PropertyValueTypeError"
        end
        return tostring(value)
    end,
}

-- The schema's other properties, whether or not they are in the store.
local readOnly = {
    Actions = true,
    Description = true,
    Id = true,
    Name = true,
    Oem = true,
    Sessions = true,
    Status = true,
}

-- Returns the properties of a body to change, messages about the others, and whether there are any.
local function classify(body, resource)
    local changes = {}
    local faults = {}
    for name, convert in pairs(writable) do
        local value = body[name]
        if value ~= nil then
            local text, id = convert(value)
            changes[name] = text
            if not text then
                messages.add(faults, name, id, argumentOf(value), name)
            end
        end
    end
    local known = {}
    for name in pairs(resource.fields) do
        known[name:match("^&&%a+ ([^ ]+) ") or name] = true
    end
    for name in pairs(body) do
        -- A client that sends back what it has read sends annotations; they change nothing.
        if not writable[name] and not name:find("@", 1, true) then
            local isReadOnly = readOnly[name] or known[name] and not contract.isInternal(name)
            messages.add(faults, name,
                isReadOnly and "Base.1.12.PropertyNotWritable" or "Base.1.12.PropertyUnknown", name)
        end
    end
    return changes, faults, next(changes) ~= nil or faults[1] ~= nil
end

-- Answers a PATCH of the service. What can be changed is changed, and messages tell about the
-- rest; when nothing can be changed the answer is 400.
function service.patch(body, resource)
    if next(body) == nil then
        error(messages.problem(400, { messages.new("Base.1.12.EmptyJSON") }))
    end
    local changes, faults, hasAny = classify(body, resource)
    if not hasAny then
        error(messages.problem(400, { messages.new("Base.1.12.NoOperation") }))
    end
    if next(changes) == nil then
        error(messages.problem(400, faults))
    end

    local checklist = {}
    for name in pairs(changes) do
        checklist[contract.checklistField(name)] = ""
    end
    local reply = requests.call("patch", {
        [contract.request.method] = "PATCH",
        [contract.request.target] = contract.service,
    }, { body = changes, checklist = checklist, read = contract.service })
    requests.expectSuccess(reply, {})

    local refused = {}
    local applied = false
    for name in pairs(changes) do
        if reply.unhandled[contract.checklistField(name)] then
            messages.add(refused, name, "Base.1.12.PropertyNotWritable", name)
        else
            applied = true
        end
    end
    for _, fault in ipairs(refused) do
        table.insert(faults, fault)
    end
    if not applied then
        error(messages.problem(400, faults))
    end

    local annotations = {}
    for _, fault in ipairs(faults) do
        annotations[fault.property .. "@Message.ExtendedInfo"] = messages.texts({ fault })
    end
    if faults.omitted then
        annotations["@Message.ExtendedInfo"] = messages.texts({ omitted = faults.omitted })
    end
    local changed = resources.from(reply.resource, contract.service) or resource
    return {
        status = 200,
        headers = { ETag = changed.etagHeader },
        type = changed.type,
        body = resources.text(changed, annotations),
    }
end

return service
