-- The files that hold the passwords of this machine's accounts. Nothing here reads them.
local ffi = require "ffi"
local settings = require "settings"

local accountFiles = {}

ffi.cdef [[
int statx(int folder, const char *path, int flags, unsigned mask, unsigned char *result);
]]
local relativeToWorkingFolder = -100
local basicStatus = 0x7ff
local status = ffi.new("unsigned char[256]")

-- Where the kernel puts number and size of the file, and the times of its changes.
local function changesOf(result)
    return ffi.string(result + 32, 16) .. ffi.string(result + 96, 32)
end

-- Returns a text that is another one after a change of any of the files.
function accountFiles.version()
    local version = {}
    for i, path in ipairs(settings.accountFiles) do
        local found = ffi.C.statx(relativeToWorkingFolder, path, 0, basicStatus, status) == 0
        version[i] = found and changesOf(status) or "none"
    end
    return table.concat(version, ",")
end

return accountFiles
