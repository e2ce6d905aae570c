// The system log: one line at the begin and the end of a session, at each
// login, failure and refusal.
#pragma once

// Opens the way to the log, before the first line, and names the daemon. Until
// then, and when there is no log, lines are lost.
void kit_audit_open(const char *daemon);

// The descriptor, for whoever closes all others; -1 while there is none.
int kit_audit_descriptor(void);

// For a process that must not speak any more.
void kit_audit_close(void);

// One line of the facility auth: an event and "name=value" words. The caller
// sees to it that no value has a blank of its own (kit_word()). Never waits: a
// log that takes nothing loses the line. Any thread, any process of the kit.
void kit_audit(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
