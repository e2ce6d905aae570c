// The answer to a command: lines and tables for people, or one JSON object on
// one line. Either way the last line says how it went: "ok", "error: reason",
// {"error":"reason"}.
#pragma once

#include <string>
#include <vector>

struct answer_column {
    const char *name;
    int width;   // 0: the last one, as wide as it comes
    bool number; // in JSON
};

struct answer {
    bool json = false;
    std::string text;  // of people's lines
    std::string parts; // of the JSON object, each with a comma before it
    std::vector<std::string> notes;
    std::string error;
    std::vector<answer_column> columns; // of the table that is being made
    bool rows = false;
};

// What is true as a whole: "name: value".
void answer_fact(answer &a, const char *name, const std::string &value);
void answer_fact(answer &a, const char *name, std::size_t value);

// A table, which JSON calls by this name. A row has a cell for each column; "-"
// says that there is nothing to say, and JSON says nothing then.
void answer_table(answer &a, const char *name,
                  const std::vector<answer_column> &columns);
// The same without names: a row is a line of text.
void answer_list(answer &a, const char *name);
void answer_row(answer &a, const std::vector<std::string> &cells);
void answer_table_end(answer &a);

// A line that is there for people; in JSON one of the "notes".
void answer_note(answer &a, const std::string &kind, const std::string &text);

// Takes the place of all else.
void answer_error(answer &a, const std::string &reason);

// The whole of it, with its last line.
std::string answer_end(const answer &a);
