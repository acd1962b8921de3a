--  Stores the definition of a tag.
--
--      KEYS    tag, value, history
--      ARGV    expiry in seconds or 0, class, type, import flag
--      returns {'done'} or {'foreign', key}

local _, foreignTag = readTag(KEYS[1])
if foreignTag then
    return {'foreign', KEYS[1]}
end
local _, foreignValue = readValue(KEYS[2])
if foreignValue then
    return {'foreign', KEYS[2]}
end
if isForeignHistory(KEYS[3]) then
    return {'foreign', KEYS[3]}
end
write('HSET', KEYS[1], 'class', ARGV[2], 'type', ARGV[3], 'importflag', ARGV[4], 'imported_ms', now())
writeExpiries(1, ARGV[1])
execute()
return {'done'}
