-- Returns the hexadecimal digits of a text's bytes.
return function(bytes)
    return (bytes:gsub(".", function(byte)
        return string.format("%02x", byte:byte())
    end))
end
