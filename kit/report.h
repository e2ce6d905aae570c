// An answer on the control socket, as text or as JSON. As text it is a line of
// "name=value" words a row, then "ok"; as JSON one object on one line. Either
// way an error is all there is: "error: reason", {"error":"reason"}.
#pragma once

#include <stddef.h>

struct kit_report {
    bool json;
    bool failed; // without memory: the answer is an error
    bool row_open;
    size_t rows;
    char *text;
    size_t length;
    size_t size;
};

void kit_report_begin(kit_report *report, bool json);
void kit_report_free(kit_report *report);

// Rows of a kind, which JSON calls by this name; each with its fields.
void kit_report_list(kit_report *report, const char *name);
void kit_report_row(kit_report *report);
void kit_report_text(kit_report *report, const char *name, const char *value);
void kit_report_number(kit_report *report, const char *name, long long value);

// A line as it is, for people; as JSON one of the rows' texts.
void kit_report_line(kit_report *report, const char *text);

// The end of a list, or of an answer that has none.
void kit_report_end(kit_report *report);

// Instead of everything before.
void kit_report_error(kit_report *report, const char *reason);
