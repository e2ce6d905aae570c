// What an operator can ask of a daemon, and have it do.
#pragma once

#include <ttyline/kit.h>

#include "kit/report.h"

// Notes the time at which the daemon begins.
void kit_command_begin(void);

// Answers a line of words. "--json" as its last word asks for JSON. On the
// warden's thread; may change the line.
void kit_command_run(const kit_daemon *daemon, char *line, kit_report *report);
