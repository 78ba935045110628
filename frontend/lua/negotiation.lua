-- What a client's headers say about the answer that it wants.
local negotiation = {}

-- Returns how well a media range fits a media type: 3 for the type itself, 0 for not at all.
local function precision(range, mediaType)
    if range == mediaType then
        return 3
    elseif range == mediaType:match("^[^/]*") .. "/*" then
        return 2
    end
    return range == "*/*" and 1 or 0
end

-- Tells whether an Accept header leaves this media type: the range that fits best decides. Without
-- a header, everything is left.
function negotiation.accepts(header, mediaType)
    local best, quality = 0, 0
    local isEmpty = true
    -- Quotes are for parameters that say nothing here, and may hold commas.
    for range in header:lower():gsub('"[^"]*"', ""):gmatch("[^,]+") do
        local name = range:match("^%s*([^;%s]+)")
        if name then
            isEmpty = false
            local fit = precision(name, mediaType)
            local given = tonumber(range:match(";%s*q%s*=%s*([%d.]+)")) or 1
            if fit > best then
                best, quality = fit, given
            elseif fit == best then
                quality = math.max(quality, given)
            end
        end
    end
    return isEmpty or best > 0 and quality > 0
end

-- Tells whether a header's list of entity tags holds a resource's. A weak tag says that two answers
-- mean the same: enough to read, not enough to change (isStrong). Some clients leave quotes out.
function negotiation.listsEtag(list, resource, isStrong)
    if list:find("^%s*%*%s*$") then
        return true
    elseif not resource.etag or isStrong and resource.etagHeader:find("^W/") then
        return false
    end
    local found = false
    local unquoted = list:gsub('(W?/?)"([^"]*)"', function(weak, tag)
        found = found or tag == resource.etag and not (isStrong and weak ~= "")
        return ""
    end)
    for tag in unquoted:gmatch("[^,%s]+") do
        found = found or tag == resource.etag
    end
    return found
end

return negotiation
