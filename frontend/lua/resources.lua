-- Resources as they stand in the store, and their JSON.
local contract = require "contract"
local json = require "json"
local store = require "store"

local resources = {}

local maxDepth = 32

local function reference(uri)
    return json.object({ [contract.resource.uri] = json.encode(uri) })
end

local kinds = contract.reference

local convertHash, convertList

-- Returns the JSON text that a reference leads to; nil when there is none.
local function convert(connection, kind, source, depth)
    if depth > maxDepth then
        error("a resource is nested too deeply")
    elseif kind == kinds.uri then
        return reference(source)
    elseif kind == kinds.array then
        return convertList(connection, source, depth)
    elseif kind == kinds.object then
        local fields = store.hash(connection, source)
        return fields and convertHash(connection, fields, depth)
    end
    return nil
end

local function value(text)
    return json.isValid(text) and text or json.encode(text)
end

-- Returns the members' texts by their names.
local function convertFields(connection, fields, depth)
    local members = {}
    for name, text in pairs(fields) do
        if not contract.isInternal(name) then
            members[name] = value(text)
        else
            local kind, property, source = name:match("^(&&%a+) ([^ ]+) ([^ ]+)$")
            if kind and fields[property] == nil then
                members[property] = convert(connection, kind, source, depth + 1)
            end
        end
    end
    return members
end

function convertHash(connection, fields, depth)
    return json.object(convertFields(connection, fields, depth))
end

function convertList(connection, key, depth)
    local elements = {}
    for _, element in ipairs(store.run(connection, "lrange", key, 0, -1) or {}) do
        local kind, source = element:match("^(&&%a+) ([^ ]+)$")
        local text
        if kind == kinds.array or kind == kinds.object or kind == kinds.uri then
            text = convert(connection, kind, source, depth + 1)
        else
            text = value(element)
        end
        elements[#elements + 1] = text
    end
    return json.array(elements)
end

-- Returns the string that a JSON text is, nil when it is none.
local function stringOf(text)
    local string = text and json.decode(text)
    return type(string) == "string" and string or nil
end

-- Returns the resource at an address, nil when there is none:
--   uri, fields (as stored), type, etag (without quotes; as a header has it in etagHeader), allow
--   (a set of methods; a list in allowText)
function resources.read(connection, uri)
    local fields = store.hash(connection, uri)
    if not fields or stringOf(fields[contract.resource.uri]) ~= uri then
        return nil
    end
    local resource = {
        uri = uri,
        fields = fields,
        type = stringOf(fields[contract.resource.type]),
        etag = stringOf(fields[contract.resource.etag]),
        allowText = fields[contract.resource.methods] or "GET,HEAD",
        allow = {},
    }
    -- Some services store it as a header has it.
    local opaque = resource.etag
        and (resource.etag:match('^"([^"%c]*)"$') or resource.etag:match('^W/"([^"%c]*)"$'))
    resource.etagHeader = opaque and resource.etag or resource.etag and json.encode(resource.etag)
    resource.etag = opaque or resource.etag
    for method in resource.allowText:gmatch("%a+") do
        resource.allow[method] = true
    end
    return resource
end

-- Returns the JSON text of a resource; `annotations` are further members, or nil.
function resources.text(connection, resource, annotations)
    local members = convertFields(connection, resource.fields, 0)
    for name, text in pairs(annotations or {}) do
        members[name] = text
    end
    return json.object(members)
end

-- Returns the address of the account of a user, an empty text when there is none.
function resources.accountOf(connection, user)
    local members = contract.membersKey(contract.accounts)
    for _, element in ipairs(store.run(connection, "lrange", members, 0, -1) or {}) do
        local uri = element:match("^" .. kinds.uri .. " (.+)$")
        if uri and store.run(connection, "hget", uri, contract.resource.owner) == user then
            return uri
        end
    end
    return ""
end

return resources
