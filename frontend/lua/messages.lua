-- The messages that clients read: the registry's texts, and answers that carry them.
local contract = require "contract"
local json = require "json"

local messages = {}

-- What comes from a client is shown up to here.
local maxShownBytes = 256
-- So many faults of one request are listed; the others are counted.
local maxListed = 10

local retry = "Send the request again later."
local correct = "Correct the request and send it again."
local correctValue = "Correct the value for the property in the request body and resubmit the "
    .. "request if the operation failed."
local addProperties = "Add properties in the JSON object and resubmit the request."

-- By identifier: the text with %1, %2 for the arguments, the severity, the resolution. Texts of
-- "Base" are those of the standard's registry.
local registry = {
    ["Base.1.12.AccessDenied"] = {
        "While attempting to establish a connection to '%1', the service denied access.",
        "Critical",
        "Attempt to ensure that the URI is correct and that the service has the appropriate "
            .. "credentials."
    },
    [contract.message.created] = { "The resource was created successfully.", "OK", "None." },
    ["Base.1.12.EmptyJSON"] = {
        "The request body submitted contained an empty JSON object and the service is unable to "
            .. "process it.",
        "Warning", addProperties
    },
    ["Base.1.12.GeneralError"] = {
        "A general error has occurred.  See Resolution for information on how to resolve the "
            .. "error, or @Message.ExtendedInfo if Resolution is not provided.",
        "Critical", "None."
    },
    [contract.message.insufficientPrivilege] = {
        "There are insufficient privileges for the account or credentials associated with the "
            .. "current session to perform the requested operation.",
        "Critical",
        "Either abandon the operation or change the associated access rights and resubmit the "
            .. "request if the operation failed."
    },
    ["Base.1.12.InternalError"] = {
        "The request failed due to an internal service error.  The service is still operational.",
        "Critical",
        "Resubmit the request.  If the problem persists, consider resetting the service."
    },
    ["Base.1.12.MalformedJSON"] = {
        "The request body submitted was malformed JSON and could not be parsed by the receiving "
            .. "service.",
        "Critical", "Ensure that the request body is valid JSON and resubmit the request."
    },
    ["Base.1.12.NoOperation"] = {
        "The request body submitted contain no data to act upon and no changes to the resource "
            .. "took place.",
        "Warning", addProperties
    },
    ["Base.1.12.NoValidSession"] = {
        "There is no valid session established with the implementation.", "Critical",
        "Establish a session before attempting any operations."
    },
    [contract.message.operationFailed] = {
        "An error occurred internal to the service as part of the overall request.  Partial "
            .. "results may have been returned.",
        "Warning",
        "Resubmit the request.  If the problem persists, consider resetting the service or "
            .. "provider."
    },
    [contract.message.passwordChangeRequired] = {
        "The password provided for this account must be changed before access is granted.  PATCH "
            .. "the Password property for this account located at the target URI '%1' to complete "
            .. "this process.",
        "Critical",
        "Change the password for this account using a PATCH to the Password property at the URI "
            .. "provided."
    },
    ["Base.1.12.PreconditionFailed"] = {
        "The ETag supplied did not match the ETag required to change this resource.", "Critical",
        "Try the operation again using the appropriate ETag."
    },
    ["Base.1.12.PropertyMissing"] = {
        "The property %1 is a required property and must be included in the request.", "Warning",
        "Ensure that the property is in the request body and has a valid value and resubmit the "
            .. "request if the operation failed."
    },
    ["Base.1.12.PropertyNotWritable"] = {
        "The property %1 is a read only property and cannot be assigned a value.", "Warning",
        "Remove the property from the request body and resubmit the request if the operation "
            .. "failed."
    },
    ["Base.1.12.PropertyUnknown"] = {
        "The property %1 is not in the list of valid properties for the resource.", "Warning",
        "Remove the unknown property from the request body and resubmit the request if the "
            .. "operation failed."
    },
    ["Base.1.12.PropertyValueFormatError"] = {
        "The value '%1' for the property %2 is of a different format than the property can accept.",
        "Warning", correctValue
    },
    ["Base.1.12.PropertyValueOutOfRange"] = {
        "The value '%1' for the property %2 is not in the supported range of acceptable values.",
        "Warning", correctValue
    },
    ["Base.1.12.PropertyValueTypeError"] = {
        "The value '%1' for the property %2 is of a different type than the property can accept.",
        "Warning", correctValue
    },
    ["Base.1.12.QueryNotSupported"] = {
        "Querying is not supported by the implementation.", "Warning",
        "Remove the query parameters and resubmit the request if the operation failed."
    },
    ["Base.1.12.ResourceMissingAtURI"] = {
        "The resource at the URI '%1' was not found.", "Critical",
        "Place a valid resource at the URI or correct the URI and resubmit the request."
    },
    [contract.message.serviceTemporarilyUnavailable] = {
        "The service is temporarily unavailable.  Retry in %1 seconds.", "Critical",
        "Wait for the indicated retry duration and retry the operation."
    },
    [contract.message.sessionLimitExceeded] = {
        "The session establishment failed due to the number of simultaneous sessions exceeding "
            .. "the limit of the implementation.",
        "Critical",
        "Reduce the number of other sessions before trying to establish the session or increase "
            .. "the limit of simultaneous sessions, if supported."
    },
    [contract.message.stringValueTooLong] = {
        "The string '%1' exceeds the length limit %2.", "Warning",
        "Resubmit the request with an appropriate string length."
    },
    [contract.message.databaseOperationError] = {
        "The service could not store the change.", "Critical", retry
    },
    ["ExtendedError.1.2.FurtherErrors"] = {
        "There are %1 more errors, which are not listed.", "Warning", correct
    },
    [contract.message.invalidCredentials] = {
        "The user name or the password is wrong.", "Critical", correct
    },
    ["ExtendedError.1.2.MalformedRequest"] = {
        "The request is incomplete or malformed.", "Critical", correct
    },
    ["ExtendedError.1.2.MediaTypeNotSupported"] = {
        "Requests and answers are application/json.", "Warning", correct
    },
    ["ExtendedError.1.2.MethodNotAllowed"] = {
        "The resource does not allow this method.", "Critical",
        "Use one of the methods that the Allow header names."
    },
    ["ExtendedError.1.2.MethodNotImplemented"] = {
        "The service does not know this.", "Warning", correct
    },
    ["ExtendedError.1.2.RequestTooLarge"] = {
        "The request is larger than the service takes.", "Critical", "Send less."
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

-- Returns as much of a text as is shown or logged, without half a character at its end.
function messages.shown(text)
    if #text <= maxShownBytes then
        return text
    end
    return (text:sub(1, maxShownBytes):gsub("[\192-\255]?[\128-\191]*$", "")) .. "..."
end

local shown = messages.shown

-- Returns a message: its identifier and its arguments, all texts. Its field resolution may say more
-- than the registry does.
function messages.new(id, ...)
    local arguments = { ... }
    for i, argument in ipairs(arguments) do
        arguments[i] = shown(argument)
    end
    return { id = id, arguments = arguments }
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

-- Appends a message about one property of the request to a list, or counts it when there are
-- enough.
function messages.add(list, property, id, ...)
    if #list >= maxListed then
        list.omitted = (list.omitted or 0) + 1
        return
    end
    local message = messages.new(id, ...)
    message.property = shown(property)
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

-- Returns the JSON text of an array of messages, and of one for those that were only counted.
function messages.texts(list)
    local texts = {}
    for i, message in ipairs(list) do
        texts[i] = textOf(message)
    end
    -- Messages about properties come in the order of a table's keys, which is none.
    table.sort(texts)
    if list.omitted then
        texts[#texts + 1] = textOf(
            messages.new("ExtendedError.1.2.FurtherErrors", tostring(list.omitted)))
    end
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
