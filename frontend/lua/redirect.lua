-- Where a client that came without TLS is sent: to the name that it used when the certificate has
-- it, and otherwise to the address that it has reached. Nobody is sent to another host.
local x509 = require "openssl.x509"
local files = require "files"
local settings = require "settings"

local redirect = {}

-- Names and addresses of the certificate.
local names = {}

local text = assert(files.read(settings.certificateFile), "the certificate cannot be read")
local alternatives = x509.new(text):getSubjectAlt()
if alternatives then
    -- This Lua's pairs() does not call it.
    for kind, name in getmetatable(alternatives).__pairs(alternatives) do
        names[kind == "DNS" and name:lower() or name] = true
    end
end

-- Returns the host of the redirection.
function redirect.host()
    local asked = ngx.var.host
    local name = asked:gsub("^%[(.*)%]$", "%1")
    if names[name] or names[name:gsub("^[^.]+", "*", 1)] then
        return asked
    end
    local address = ngx.var.server_addr
    return address:find(":", 1, true) and "[" .. address .. "]" or address
end

return redirect
