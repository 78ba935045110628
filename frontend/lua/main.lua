-- One HTTP request: from its line to its answer.
local authentication = require "authentication"
local contract = require "contract"
local files = require "files"
local json = require "json"
local messages = require "messages"
local privileges = require "privileges"
local resources = require "resources"
local service = require "service"
local sessions = require "sessions"
local store = require "store"

local main = {}

local metadataFile = "/usr/local/share/nginx/metadata.xml"

local function refuse(status, id, ...)
    error(messages.problem(status, { messages.new(id, ...) }))
end

local function refuseMethod(allow)
    error(messages.problem(405, { messages.new("Base.1.12.OperationNotAllowed") },
        { Allow = allow }))
end

local methods = {
    DELETE = true, GET = true, HEAD = true, OPTIONS = true, PATCH = true, POST = true, PUT = true,
}

-- What holds for every request, wherever it leads.
local function checkRequest(method)
    if not methods[method] then
        refuse(501, "ExtendedError.1.2.MethodNotImplemented")
    end
    local version = ngx.var.http_odata_version
    if version and version ~= "4.0" then
        refuse(412, "ExtendedError.1.2.VersionNotSupported")
    end
    for name in pairs(ngx.req.get_uri_args()) do
        if name:sub(1, 1) == "$" then
            refuse(501, "Base.1.12.QueryNotSupported")
        end
    end
end

local function checkAccept(mediaType)
    local given = ngx.req.get_headers().accept or ""
    local accept = (type(given) == "table" and table.concat(given, ",") or given):lower()
    local family = mediaType:match("^[^/]*")
    if accept ~= "" and not (accept:find("*/*", 1, true) or accept:find(mediaType, 1, true)
        or accept:find(family .. "/*", 1, true)) then
        refuse(406, "ExtendedError.1.2.MediaTypeNotSupported")
    end
end

-- Returns the body as it came.
local function bodyText()
    local text = ngx.req.get_body_data()
    local file = not text and ngx.req.get_body_file()
    return text or file and files.read(file) or ""
end

-- Returns the object that is the request's body, which has been received.
local function readBody()
    local mediaType = (ngx.var.http_content_type or ""):match("^%s*([^;%s]*)"):lower()
    if mediaType ~= "application/json" then
        refuse(415, "ExtendedError.1.2.MediaTypeNotSupported")
    end
    local text = bodyText()
    local body = text:find("^%s*{") and json.decode(text)
    if not body then
        refuse(400, "Base.1.12.MalformedJSON")
    end
    return body
end

-- Tells whether a list of entity tags, as a header has it, names this one.
local function names(list, etag)
    if list:find("^%s*%*%s*$") then
        return true
    end
    for tag in list:gmatch('"([^"]*)"') do
        if tag == etag then
            return true
        end
    end
    return false
end

local function checkPrecondition(resource)
    local wanted = ngx.var.http_if_match
    if wanted and not names(wanted, resource.etag) then
        refuse(412, "Base.1.12.PreconditionFailed")
    end
end

-- Answers a GET of a resource that has been read.
local function represent(connection, resource)
    local headers = {
        Allow = resource.allowText,
        ETag = resource.etagHeader,
    }
    local known = ngx.var.http_if_none_match
    if known and resource.etag and names(known, resource.etag) then
        return { status = 304, headers = headers }
    end
    return {
        status = 200,
        headers = headers,
        type = resource.type,
        body = resources.text(connection, resource),
    }
end

local function versions()
    return { status = 200, body = json.object({ v1 = json.encode(contract.root .. "/") }) }
end

-- The OData service document: what the service root links to.
local function serviceDocument(connection)
    local entries = {}
    local function add(name, uri)
        entries[#entries + 1] = json.object({
            name = json.encode(name),
            kind = json.encode("Singleton"),
            url = json.encode(uri),
        })
    end
    add("Service", contract.root .. "/")
    for field in pairs(store.hash(connection, contract.root) or {}) do
        local name, uri = field:match("^&&ObjectRef ([^ ]+) ([^ ]+)$")
        if name then
            add(name, uri)
        end
    end
    table.sort(entries)
    return {
        status = 200,
        body = json.object({
            ["@odata.context"] = json.encode(contract.root .. "/$metadata"),
            value = json.array(entries),
        }),
    }
end

local function metadata()
    checkAccept("application/xml")
    local text = assert(files.read(metadataFile), "the metadata file cannot be read")
    return { status = 200, headers = { ["Content-Type"] = "application/xml" }, body = text }
end

-- What everybody can read, by its path without a slash at the end.
local public = {
    ["/redfish"] = versions,
    [contract.root] = function(connection)
        local root = resources.read(connection, contract.root)
        if not root then
            error(messages.unavailable())
        end
        return represent(connection, root)
    end,
    [contract.root .. "/odata"] = serviceDocument,
    [contract.root .. "/$metadata"] = metadata,
}

-- A user whose password has expired can change it and leave, and nothing else.
local function checkPasswordChange(connection, user, method, uri)
    if not user.mustChangePassword or method == "DELETE" and uri == user.session then
        return
    end
    local account = resources.accountOf(connection, user.name)
    if not (method == "PATCH" and uri == account) then
        refuse(403, "Base.1.12.PasswordChangeRequired", account)
    end
end

-- Returns the user's resource after all that has to be right before its method is carried out.
local function open(connection, user, method, uri)
    checkPasswordChange(connection, user, method, uri)
    local resource = resources.read(connection, uri)
    if not resource then
        refuse(404, "Base.1.12.ResourceMissingAtURI", uri)
    end
    if not resource.allow[method] then
        refuseMethod(resource.allowText)
    end
    privileges.check(user, method, resource)
    checkPrecondition(resource)
    return resource
end

-- Carries out the user's request on a resource.
local function serve(user, method, uri)
    local resource, answer
    store.with(messages.unavailable, function(connection)
        resource = open(connection, user, method, uri)
        if method == "GET" then
            answer = represent(connection, resource)
        end
    end)
    if method == "DELETE" and uri:find("^" .. contract.sessions .. "/[^/]+$") then
        sessions.remove(uri)
        user.temporary = user.temporary and uri ~= user.session
        answer = { status = 204 }
    elseif method == "PATCH" and uri == contract.service then
        answer = service.patch(readBody(), resource)
    end
    if not answer then
        -- It belongs to a service that this front end knows nothing about.
        refuse(501, "ExtendedError.1.2.MethodNotImplemented")
    end
    return answer
end

local function handle()
    local method = ngx.req.get_method()
    checkRequest(method)
    method = method == "HEAD" and "GET" or method
    local uri = ngx.var.uri:gsub("(.)/$", "%1")
    if not json.isUtf8(uri) then
        -- No resource is there, and no answer could name it.
        refuse(400, "Base.1.12.MissingOrMalformedPart")
    end

    if public[uri] then
        if method ~= "GET" then
            refuseMethod("GET,HEAD")
        end
        if uri ~= contract.root .. "/$metadata" then
            checkAccept("application/json")
        end
        return store.with(messages.unavailable, public[uri])
    end
    checkAccept("application/json")
    -- The request ends in here when its body is too large or too slow. So nothing is under way yet.
    ngx.req.read_body()
    if method == "POST"
        and (uri == contract.sessions or uri == contract.sessions .. "/Members") then
        return sessions.create(readBody())
    end

    local user = store.with(messages.unavailable, authentication.identify)
    local fine, answer = pcall(serve, user, method, uri)
    if user.temporary and not pcall(sessions.remove, user.session) then
        ngx.log(ngx.WARN, "a session of HTTP Basic could not be removed; it has to expire")
    end
    if not fine then
        error(answer, 0)
    end
    return answer
end

-- The schema that describes answers of a type such as "#Session.v1_3_0.Session".
local function schemaOf(type)
    local name = type and type:match("^#(.+)%.[^.]+$")
    return name and "http://redfish.dmtf.org/schemas/v1/" .. name .. ".json"
end

local function send(answer)
    -- The web server would judge the answer by these once more, after the work is done.
    for _, condition in ipairs({ "If-Match", "If-None-Match", "If-Modified-Since",
        "If-Unmodified-Since" }) do
        ngx.req.clear_header(condition)
    end
    ngx.status = answer.status
    ngx.header["OData-Version"] = "4.0"
    ngx.header["Cache-Control"] = "no-store"
    local schema = schemaOf(answer.type)
    if schema then
        ngx.header["Link"] = "<" .. schema .. ">; rel=describedby"
    end
    for name, value in pairs(answer.headers or {}) do
        ngx.header[name] = value
    end
    if answer.body then
        ngx.header["Content-Length"] = #answer.body
        ngx.print(answer.body)
    else
        ngx.header["Content-Type"] = nil
    end
end

local function answerOf(problem)
    if type(problem) == "table" and problem.status then
        return {
            status = problem.status,
            headers = problem.headers,
            body = messages.errorBody(problem.messages),
        }
    end
    -- A text: the store went away in between, or a fault of the front end's own.
    problem = tostring(problem)
    if problem:find("store: ", 1, true) then
        ngx.log(ngx.WARN, problem)
        return answerOf(messages.unavailable())
    end
    ngx.log(ngx.ERR, problem)
    return answerOf(messages.problem(500, { messages.new("Base.1.12.InternalError") }))
end

-- Answers the request at hand.
function main.answer()
    local fine, result = pcall(handle)
    send(fine and result or answerOf(result))
end

local refusals = {
    [408] = { "Base.1.12.MissingOrMalformedPart" },
    [413] = { "Base.1.12.PayloadTooLarge" },
    [414] = { "Base.1.12.PayloadTooLarge" },
    [429] = { "Base.1.12.ServiceTemporarilyUnavailable", "1" },
    [500] = { "Base.1.12.InternalError" },
    [501] = { "ExtendedError.1.2.MethodNotImplemented" },
    [503] = { "Base.1.12.ServiceTemporarilyUnavailable", "1" },
}

-- Answers what the web server itself refuses: what is malformed, too large, too slow or too much.
function main.refuse()
    if not ngx.req.is_internal() then
        -- A client's own request for this address.
        return main.answer()
    end
    local status = ngx.status
    local message = refusals[status] or { "Base.1.12.MissingOrMalformedPart" }
    local headers = message[2] and { ["Retry-After"] = message[2] }
    local problem = messages.problem(status, { messages.new(unpack(message)) }, headers)
    send(answerOf(problem))
end

return main
