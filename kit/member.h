// A session's function and its way to the daemon.
#pragma once

// Notes the channel of this process, which is a session's.
void kit_member_open(int channel);
