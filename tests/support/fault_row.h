// What a test has seen follow a failure, for the table in docs/faults.md.
#pragma once

// Declares, at the beginning of a test, one row of the table: in this function
// of a library this call fails with this error (names as <errno.h> has them,
// several with ", " between; "short" for a call that does less than asked;
// otherwise what the call gives), then the caller sees this, this line is
// logged (as the source has it, "" for none) and this is left behind. The row
// is only written when the test has passed, to a file of this process in the
// directory that TTYLINE_FAULT_ROWS names; nothing happens without that.
void fault_row(const char *function, const char *call, const char *error,
               const char *caller, const char *log, const char *left);
