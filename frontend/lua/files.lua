-- Small files that are read whole.
local files = {}

-- Returns a file's text; nil when it cannot be read.
function files.read(path)
    local file = io.open(path, "rb")
    if not file then
        return nil
    end
    local text = file:read("*a")
    file:close()
    return text
end

return files
