local digits = {}
for byte = 0, 255 do
    digits[string.char(byte)] = string.format("%02x", byte)
end

-- Returns the hexadecimal digits of a text's bytes.
return function(bytes)
    return (bytes:gsub(".", digits))
end
