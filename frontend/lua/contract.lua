-- Everything the front end shares with the session service: keys, fields, words and limits.
local contract = {}

contract.root = "/redfish/v1"
contract.service = "/redfish/v1/SessionService"
contract.sessions = "/redfish/v1/SessionService/Sessions"
contract.accounts = "/redfish/v1/AccountService/Accounts"

-- The lists of the members of collections.
contract.accountMembers = "&&/redfish/v1/AccountService/Accounts/Members"
contract.sessionMembers = "&&/redfish/v1/SessionService/Sessions/Members"

-- Stands for the origin of a session that clients must not see. No page has it.
contract.temporaryOrigin = "&&temporary"

-- The pattern of an address below a collection.
function contract.memberPattern(collection)
    return "^" .. collection .. "/[^/]+$"
end

-- Lists that name the channel of each kind of request.
contract.queues = {
    login = "&&/redfish/v1/SessionService/Sessions/POSTCREATEQ",
    logout = "&&/redfish/v1/SessionService/Sessions/DELETEQ",
    patch = "&&/redfish/v1/SessionService/PATCHQ",
}

-- Fields of a request.
contract.request = {
    returnChannel = "&&ReturnChannel",
    data = "&&RequestData",
    privileges = "&&OperationPrivileges",
    address = "&&RemoteIP",
    origin = "&&Origin",
    target = "&&TargetURI",
    method = "&&RequestMethod",
}

-- The key of a request's body.
function contract.bodyKey(requestKey)
    return requestKey .. "/Body"
end

-- The key of the list of properties that await a handler, and its field of a property.
function contract.checklistKey(requestKey)
    return requestKey .. "/Checklist"
end

function contract.checklistField(property)
    return "/" .. property
end

-- Fields of a reply.
contract.reply = {
    status = "&&ReturnStatus",
    messages = "&&ExtendedInfo",
    location = "&&Location",
    token = "&&X-Auth-Token",
}

-- Outcomes of a request.
contract.status = {
    ok = "OK",
    okEmpty = "OK_EMPTY",
    failure = "FAILURE",
    unavailable = "UNAVAILABLE",
    authFailed = "AUTH_FAILED",
    forbidden = "FORBIDDEN",
    exception = "EXCEPTION",
}

-- Fields of a stored message.
contract.storedMessage = { id = "&&MessageId", arguments = "&&MessageArgs" }

-- Identifiers of the messages that the session service sends.
contract.message = {
    created = "Base.1.12.Created",
    databaseOperationError = "ExtendedError.1.2.DatabaseOperationError",
    insufficientPrivilege = "Base.1.12.InsufficientPrivilege",
    invalidCredentials = "ExtendedError.1.2.InvalidCredentials",
    operationFailed = "Base.1.12.OperationFailed",
    passwordChangeRequired = "Base.1.12.PasswordChangeRequired",
    serviceDisabled = "ExtendedError.1.2.ServiceDisabled",
    serviceTemporarilyUnavailable = "Base.1.12.ServiceTemporarilyUnavailable",
    sessionLimitExceeded = "Base.1.12.SessionLimitExceeded",
    stringValueTooLong = "Base.1.12.StringValueTooLong",
    unprocessableEntity = "ExtendedError.1.2.UnprocessableEntity",
}

-- Fields of a stored resource.
contract.resource = {
    uri = "@odata.id",
    type = "@odata.type",
    etag = "@odata.etag",
    methods = "&&AllowMethod",
    owner = "&&OwnerName",
}

-- The field that counts a list.
function contract.countOf(property)
    return property .. "@odata.count"
end

-- Fields of a stored session, and its type.
contract.session = { user = "UserName", type = "SessionType", origin = "&&Origin" }
contract.redfishType = '"Redfish"'

-- Sessions of this type that there can be.
contract.maxSessions = 8

-- Tells whether a stored field is not a property of its resource.
function contract.isInternal(field)
    return field:sub(1, 2) == "&&"
end

-- What begins a field or a list element whose value is stored elsewhere.
contract.kind = { array = "&&Array", object = "&&Object", uri = "&&ObjectRef" }

contract.tokenPrefix = "&&X-AUTH-TOKEN-"

function contract.tokenKey(token)
    return contract.tokenPrefix .. token
end

-- Hexadecimal digits of a token.
contract.tokenLength = 64

-- Fields of a token's record.
contract.token = {
    user = "UserName",
    privilege = "Privilege",
    session = "SessionID",
    lastAccessed = "LastAccessed",
    timeout = "Timeout",
    origin = "&&Origin",
    passwordChangeRequired = "&&PasswordChangeRequired",
}

-- Sums of these are privileges; a request asks for one of a list of sums.
contract.privilege = {
    login = 1,
    configureManager = 2,
    configureUsers = 4,
    configureSelf = 8,
    configureComponents = 16,
}

-- The session service takes a larger number for none.
contract.maxPrivilege = 2147483647

-- Properties of the service that it takes, and the range of the timeout in seconds.
contract.property = { timeout = "SessionTimeout", enabled = "ServiceEnabled" }
contract.minTimeout = 30
contract.maxTimeout = 86400

-- Properties of a login.
contract.credentials = { user = "UserName", password = "Password" }

return contract
