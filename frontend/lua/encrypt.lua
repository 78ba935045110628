-- Passwords as the session service reads them: hexadecimal digits of nonce, ciphertext and tag,
-- AES-256-GCM.
local cipher = require "openssl.cipher"
local rand = require "openssl.rand"
local files = require "files"
local hex = require "hex"
local settings = require "settings"

local nonceLength = 12
local tagLength = 16

-- Bytes by their two hexadecimal digits, small or capital ones.
local bytes = {}
for first in ("0123456789abcdefABCDEF"):gmatch(".") do
    for second in ("0123456789abcdefABCDEF"):gmatch(".") do
        bytes[first .. second] = string.char(tonumber(first .. second, 16))
    end
end

-- Returns the key's 32 bytes, nil when its file is missing or malformed. It is read each time, as
-- the session service does: the file may have been replaced.
local function readKey()
    local digits = (files.read(settings.keyFile) or ""):match("^(%x+)\n?$")
    if not digits or #digits ~= 64 then
        return nil
    end
    return (digits:gsub("..", bytes))
end

-- Returns the encrypted text, nil when there is no usable key.
return function(text)
    local key = readKey()
    if not key then
        return nil
    end
    local nonce = rand.bytes(nonceLength)
    local encryption = cipher.new("aes-256-gcm"):encrypt(key, nonce)
    local ciphertext = encryption:final(text)
    return hex(nonce .. ciphertext .. encryption:getTag(tagLength))
end
