-- The keys, fields and words that the front end shares with the session service.
local contract = {}

contract.root = "/redfish/v1"
contract.service = "/redfish/v1/SessionService"
contract.sessions = "/redfish/v1/SessionService/Sessions"
contract.accounts = "/redfish/v1/AccountService/Accounts"

-- Lists that name the channel of each kind of request.
contract.queues = {
    login = "&&/redfish/v1/SessionService/Sessions/POSTCREATEQ",
    logout = "&&/redfish/v1/SessionService/Sessions/DELETEQ",
    patch = "&&/redfish/v1/SessionService/PATCHQ",
}

-- Of the front end's own keys, for one request each.
contract.requests = "&&/frontend/"

function contract.tokenKey(token)
    return "&&X-AUTH-TOKEN-" .. token
end

-- Sums of these are privileges; a request asks for one of a list of sums.
contract.privilege = {
    login = 1,
    configureManager = 2,
    configureUsers = 4,
    configureSelf = 8,
    configureComponents = 16,
}

return contract
