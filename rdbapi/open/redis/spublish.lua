
--  The command that announces a change to the subscribers of its channel. A cluster sends PUBLISH to all of its nodes;
--  from Redis 7 on, SPUBLISH only to those that have the slot. The script of a cluster uses it if the server has it.
local publish = redis.acl_check_cmd and 'SPUBLISH' or 'PUBLISH'

