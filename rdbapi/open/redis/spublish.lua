
--  The command that announces a change to the subscribers of its channel. A cluster sends PUBLISH to all of its nodes,
--  but SPUBLISH only to the nodes that have the slot. Servers have SPUBLISH from Redis 7 on.
local publish = redis.acl_check_cmd and 'SPUBLISH' or 'PUBLISH'

