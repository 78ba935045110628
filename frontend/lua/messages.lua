-- The messages that clients read: the registry's texts, and answers that carry them.
local contract = require "contract"
local json = require "json"

local messages = {}

local retry = "Send the request again later."
local correct = "Correct the request and send it again."

-- By identifier: the text with %1, %2 for the arguments, the severity, the resolution.
local registry = {
    ["Base.1.12.AccessDenied"] = {
        "%1 cannot be reached with this origin.", "Critical", "Log in from this origin."
    },
    [contract.message.created] = { "The resource has been created.", "OK", "None." },
    ["Base.1.12.EmptyJSON"] = {
        "The request's object is empty, and properties are expected.", "Warning", correct
    },
    ["Base.1.12.GeneralError"] = {
        "The request failed. The details say why, if anything is known.", "Critical", "None."
    },
    [contract.message.insufficientPrivilege] = {
        "The user's privileges do not suffice for this.", "Critical",
        "Log in as a user with more privileges, or have yours changed."
    },
    ["Base.1.12.InternalError"] = {
        "The request failed for an internal reason. The service goes on.", "Critical", retry
    },
    ["Base.1.12.MalformedJSON"] = {
        "The request's body is not the JSON that is expected.", "Critical", correct
    },
    ["Base.1.12.MissingOrMalformedPart"] = {
        "The request is incomplete or malformed.", "Critical", correct
    },
    ["Base.1.12.NoOperation"] = {
        "The request holds nothing to change.", "Warning", correct
    },
    ["Base.1.12.NoValidSession"] = {
        "There is no valid session for this request.", "Critical", "Log in, then send it again."
    },
    [contract.message.operationFailed] = {
        "An operation of the service failed as part of the request.", "Warning", retry
    },
    ["Base.1.12.OperationNotAllowed"] = {
        "The resource does not allow this method.", "Critical",
        "Use one of the methods that the Allow header names."
    },
    [contract.message.passwordChangeRequired] = {
        "The password must be changed first, in the account %1.", "Critical",
        "Set another password with a PATCH of that account."
    },
    ["Base.1.12.PayloadTooLarge"] = {
        "The request is larger than the service takes.", "Critical", "Send less."
    },
    ["Base.1.12.PreconditionFailed"] = {
        "The resource has changed: its ETag is not among those of the request.", "Critical",
        "Read the resource again, then repeat the change with its ETag."
    },
    ["Base.1.12.PropertyMissing"] = {
        "The property %1 is required and missing.", "Warning", correct
    },
    ["Base.1.12.PropertyNotWritable"] = {
        "The property %1 cannot be changed.", "Warning", "Leave the property out."
    },
    ["Base.1.12.PropertyUnknown"] = {
        "The property %1 is not one of this resource.", "Warning", "Leave the property out."
    },
    ["Base.1.12.PropertyValueFormatError"] = {
        "The value of the property %2 cannot be used.", "Warning", correct
    },
    ["Base.1.12.PropertyValueNotInList"] = {
        "The value %1 is not one that the property %2 can have.", "Warning", correct
    },
    ["Base.1.12.PropertyValueOutOfRange"] = {
        "The value %1 of the property %2 is outside its range.", "Warning", correct
    },
    ["Base.1.12.PropertyValueTypeError"] = {
        "The value %1 of the property %2 has another type than the property.", "Warning", correct
    },
    ["Base.1.12.QueryNotSupported"] = {
        "Queries of this kind are not supported.", "Warning", "Leave the query out."
    },
    ["Base.1.12.ResourceMissingAtURI"] = {
        "There is no resource at %1.", "Critical", "Correct the address of the request."
    },
    [contract.message.serviceTemporarilyUnavailable] = {
        "The service cannot answer now. Try again in %1 seconds.", "Critical", retry
    },
    [contract.message.sessionLimitExceeded] = {
        "There are as many sessions as there can be.", "Critical",
        "Log out of another session, or wait until one has expired."
    },
    [contract.message.stringValueTooLong] = {
        "The value %1 is longer than %2 characters.", "Warning", correct
    },
    [contract.message.databaseOperationError] = {
        "The service could not store the change.", "Critical", retry
    },
    [contract.message.invalidCredentials] = {
        "The user name or the password is wrong.", "Critical", correct
    },
    ["ExtendedError.1.2.MediaTypeNotSupported"] = {
        "Requests and answers are application/json.", "Warning", correct
    },
    ["ExtendedError.1.2.MethodNotImplemented"] = {
        "The service does not know this.", "Warning", correct
    },
    [contract.message.serviceDisabled] = {
        "The service is switched off.", "Warning", "Switch the service on."
    },
    [contract.message.unprocessableEntity] = {
        "The service cannot do this with that resource.", "Critical", correct
    },
    ["ExtendedError.1.2.VersionNotSupported"] = {
        "The service speaks version 4.0 of OData only.", "Warning", correct
    },
}

-- Returns a message: its identifier and its arguments, all texts. Its field resolution may say more
-- than the registry does.
function messages.new(id, ...)
    return { id = id, arguments = { ... } }
end

local general = messages.new("Base.1.12.GeneralError")

local function entryOf(message)
    return registry[message.id] or registry[general.id]
end

local function sentence(message)
    return (entryOf(message)[1]:gsub("%%(%d)", function(number)
        return message.arguments[tonumber(number)] or "?"
    end))
end

-- Appends a message about one property of the request to a list.
function messages.add(list, property, id, ...)
    local message = messages.new(id, ...)
    message.property = property
    list[#list + 1] = message
end

local function textOf(message)
    local entry = entryOf(message)
    local arguments = {}
    for i, argument in ipairs(message.arguments) do
        arguments[i] = json.encode(argument)
    end
    local members = {
        ["@odata.type"] = json.encode("#Message.v1_1_2.Message"),
        MessageId = json.encode(message.id),
        Message = json.encode(sentence(message)),
        MessageArgs = json.array(arguments),
        MessageSeverity = json.encode(entry[2]),
        Severity = json.encode(entry[2]),
        Resolution = json.encode(message.resolution or entry[3]),
    }
    if message.property then
        members.RelatedProperties = json.array({ json.encode("/" .. message.property) })
    end
    return json.object(members)
end

-- Returns the JSON text of an array of messages.
function messages.texts(list)
    local texts = {}
    for i, message in ipairs(list) do
        texts[i] = textOf(message)
    end
    -- Messages about properties come in the order of a table's keys, which is none.
    table.sort(texts)
    return json.array(texts)
end

-- Returns what a refused request raises: the status, messages and headers of its answer.
function messages.problem(status, list, headers)
    return { status = status, messages = list, headers = headers or {} }
end

-- The problem of a client that has to log in first, or that could not.
function messages.unauthorized(list)
    return messages.problem(401, list, { ["WWW-Authenticate"] = 'Basic realm="Redfish"' })
end

-- What nginx logs for a client that has closed its connection.
messages.clientGoneStatus = 499

-- What ends a request whose client has gone. Nobody reads it.
function messages.clientGone()
    return messages.problem(messages.clientGoneStatus, {})
end

-- The problem of a service that is not there now.
function messages.unavailable(seconds)
    seconds = tostring(seconds or 5)
    local message = messages.new(contract.message.serviceTemporarilyUnavailable, seconds)
    return messages.problem(503, { message }, { ["Retry-After"] = seconds })
end

-- The problem of a client that asks too much.
function messages.tooMany()
    local problem = messages.unavailable()
    problem.status = 429
    return problem
end

-- Returns the JSON text of an error answer.
function messages.errorBody(list)
    local head = #list == 1 and list[1] or general
    return json.object({
        error = json.object({
            code = json.encode(head.id),
            message = json.encode(sentence(head)),
            ["@Message.ExtendedInfo"] = messages.texts(#list > 0 and list or { general }),
        }),
    })
end

return messages
