-- Who may do what.
local bit = require "bit"
local contract = require "contract"
local messages = require "messages"

local privilege = contract.privilege

local privileges = {}

-- Returns the privilege that a stored text stands for.
function privileges.from(text)
    local sum = tonumber(text:match("^%s*(%d+)")) or 0
    return sum <= contract.maxPrivilege and sum or 0
end

-- Tells whether a user, or any record with a privilege, holds all that is needed.
function privileges.holds(user, needed)
    return bit.band(user.privilege, needed) == needed
end

local holds = privileges.holds

local function has(needed)
    return function(user)
        return holds(user, needed)
    end
end

local function isOwn(user, resource)
    return resource.fields[contract.resource.owner] == user.name
end

-- One's own, or anybody's with the privilege for all.
local function ownOr(needed)
    return function(user, resource)
        return holds(user, needed)
            or holds(user, privilege.configureSelf) and isOwn(user, resource)
    end
end

-- A session can always end itself.
local function itselfOr(rule)
    return function(user, resource)
        return resource.uri == user.session or rule(user, resource)
    end
end

-- What each method asks for, by the resource's address. What is not named here can be read with
-- Login and not be changed.
local rules = {
    { pattern = "^" .. contract.service .. "$", PATCH = has(privilege.configureManager) },
    {
        pattern = contract.memberPattern(contract.sessions),
        GET = ownOr(privilege.configureManager),
        DELETE = itselfOr(ownOr(privilege.configureManager)),
    },
    {
        pattern = contract.memberPattern(contract.accounts),
        GET = ownOr(privilege.configureUsers),
        PATCH = ownOr(privilege.configureUsers),
    },
}

local defaults = { GET = has(privilege.login) }

-- Raises the problem 403 unless the user may do this with the resource.
function privileges.check(user, method, resource)
    local rule = defaults
    for _, candidate in ipairs(rules) do
        if resource.uri:find(candidate.pattern) then
            rule = candidate
        end
    end
    local allows = rule[method] or defaults[method]
    if not (allows and allows(user, resource)) then
        error(messages.problem(403, { messages.new(contract.message.insufficientPrivilege) }))
    end
end

return privileges
