
--  The command that announces a change to the subscribers of its channel.
local publish = 'PUBLISH'

