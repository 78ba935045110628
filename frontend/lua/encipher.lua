-- The form in which a password travels to the session service: hexadecimal digits of nonce,
-- ciphertext and tag, AES-256-GCM.
local cipher = require "openssl.cipher"
local rand = require "openssl.rand"
local settings = require "settings"

local nonceLength = 12
local tagLength = 16

local function hex(bytes)
    return (bytes:gsub(".", function(byte)
        return string.format("%02x", byte:byte())
    end))
end

-- Returns the key's 32 bytes, nil when its file is missing or malformed. It is read each time, as
-- the session service does.
local function key()
    local file = io.open(settings.keyFile, "rb")
    local digits = file and file:read("*a"):match("^(%x+)\n?$")
    if file then
        file:close()
    end
    if not digits or #digits ~= 64 then
        return nil
    end
    return (digits:gsub("%x%x", function(pair)
        return string.char(tonumber(pair, 16))
    end))
end

-- Returns the enciphered text, nil when there is no usable key.
return function(text)
    local secret = key()
    if not secret then
        return nil
    end
    local nonce = rand.bytes(nonceLength)
    local encryption = cipher.new("aes-256-gcm"):encrypt(secret, nonce)
    local ciphertext = encryption:final(text)
    return hex(nonce .. ciphertext .. encryption:getTag(tagLength))
end
