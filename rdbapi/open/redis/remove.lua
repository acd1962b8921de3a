
--  The last part of the script that deletes a name. It deletes tag, value and history with one command.
--
--      KEYS    tag, value, history
--      ARGV    type and value that were shown, both empty if there was no value
--      returns {'done'}, {'changed'} or {'foreign', key}

local _, foreignTag = readTag(KEYS[1])
if foreignTag then
    return {'foreign', KEYS[1]}
end
local value, foreignValue = readValue(KEYS[2])
if foreignValue then
    return {'foreign', KEYS[2]}
end
if isForeignHistory(KEYS[3]) then
    return {'foreign', KEYS[3]}
end
if (value and value[2] or '') ~= ARGV[1] or (value and value[3] or '') ~= ARGV[2] then
    return {'changed'}
end
write('DEL', KEYS[1], KEYS[2], KEYS[3])
execute()
return {'done'}
