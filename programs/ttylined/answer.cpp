#include "programs/ttylined/answer.h"

#include <cstdio>

// What is not ASCII has been escaped before it comes here, or is a "?" here.
static std::string json_text(const std::string &text)
{
    std::string quoted = "\"";
    char code[8];

    for (const char c : text) {
        if (c == '"' || c == '\\') {
            quoted += '\\';
            quoted += c;
        } else if (c >= 0 && c < ' ') {
            std::snprintf(code, sizeof code, "\\u%04x", c);
            quoted += code;
        } else {
            quoted += c > '~' || c < 0 ? '?' : c;
        }
    }
    return quoted + "\"";
}

static void add_part(answer &a, const std::string &name,
                     const std::string &value)
{
    a.parts += "," + json_text(name) + ":" + value;
}

void answer_fact(answer &a, const char *name, const std::string &value)
{
    a.text += std::string(name) + ": " + value + "\n";
    add_part(a, name, json_text(value));
}

void answer_fact(answer &a, const char *name, std::size_t value)
{
    a.text += std::string(name) + ": " + std::to_string(value) + "\n";
    add_part(a, name, std::to_string(value));
}

static std::string padded(const std::string &text, int width)
{
    const std::size_t wanted = static_cast<std::size_t>(width);

    return text.size() < wanted ? text + std::string(wanted - text.size(), ' ')
                                : text;
}

void answer_table(answer &a, const char *name,
                  const std::vector<answer_column> &columns)
{
    std::string line;

    a.columns = columns;
    a.rows = false;
    for (const answer_column &column : columns) {
        line += (line.empty() ? "" : " ") + padded(column.name, column.width);
    }
    a.text += line + "\n";
    a.parts += "," + json_text(name) + ":[";
}

void answer_list(answer &a, const char *name)
{
    a.columns = {{"text", 0, false}};
    a.rows = false;
    a.parts += "," + json_text(name) + ":[";
}

void answer_row(answer &a, const std::vector<std::string> &cells)
{
    std::string line;
    std::string object;

    for (std::size_t i = 0; i < a.columns.size(); i++) {
        const answer_column &column = a.columns[i];
        line += (i > 0 ? " " : "") + padded(cells[i], column.width);
        if (cells[i] != "-") {
            object += (object.empty() ? "" : ",") + json_text(column.name) +
                      ":" + (column.number ? cells[i] : json_text(cells[i]));
        }
    }
    a.text += line + "\n";
    a.parts += (a.rows ? ",{" : "{") + object + "}";
    a.rows = true;
}

void answer_table_end(answer &a)
{
    a.parts += "]";
}

void answer_note(answer &a, const std::string &kind, const std::string &text)
{
    a.text += kind + ": " + text + "\n";
    a.notes.push_back(text);
}

void answer_error(answer &a, const std::string &reason)
{
    a.error = reason;
}

static std::string json_of(const answer &a)
{
    std::string parts = a.parts;
    std::string notes;

    if (!a.error.empty()) {
        return "{\"error\":" + json_text(a.error) + "}\n";
    }
    for (const std::string &note : a.notes) {
        notes += (notes.empty() ? "" : ",") + json_text(note);
    }
    if (parts.empty()) {
        parts = ",\"ok\":true";
    }
    if (!notes.empty()) {
        parts += ",\"notes\":[" + notes + "]";
    }
    return "{" + parts.substr(1) + "}\n";
}

std::string answer_end(const answer &a)
{
    if (a.json) {
        return json_of(a);
    }
    return a.error.empty() ? a.text + "ok\n" : "error: " + a.error + "\n";
}
