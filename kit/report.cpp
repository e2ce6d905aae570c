#include "kit/report.h"

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "kit/text.h"

constexpr size_t FIRST_SIZE = 1024;
constexpr size_t WORD_SIZE = 1024;

void kit_report_begin(kit_report *report, bool json)
{
    *report = {};
    report->json = json;
}

void kit_report_free(kit_report *report)
{
    free(report->text);
    report->text = nullptr;
    report->length = 0;
    report->size = 0;
    report->rows = 0;
    report->row_open = false;
}

static bool make_room(kit_report *report, size_t length)
{
    size_t size = report->size > 0 ? report->size : FIRST_SIZE;

    while (size < report->length + length + 1) {
        size *= 2;
    }
    if (size == report->size) {
        return true;
    }
    char *text = static_cast<char *>(realloc(report->text, size));
    if (text == nullptr) {
        report->failed = true;
        return false;
    }
    report->text = text;
    report->size = size;
    return true;
}

static void add(kit_report *report, const char *text)
{
    const size_t length = strlen(text);

    if (!report->failed && make_room(report, length)) {
        memcpy(report->text + report->length, text, length + 1);
        report->length += length;
    }
}

// Text that is no UTF-8 is none in JSON either: such bytes become "?".
static void add_json_text(kit_report *report, const char *text)
{
    char piece[8];

    add(report, "\"");
    for (; *text != '\0'; text++) {
        const unsigned char byte = static_cast<unsigned char>(*text);
        if (byte == '"' || byte == '\\') {
            (void)snprintf(piece, sizeof piece, "\\%c", byte);
        } else if (byte < ' ' || byte == 0x7f) {
            (void)snprintf(piece, sizeof piece, "\\u%04x", byte);
        } else {
            (void)snprintf(piece, sizeof piece, "%c", byte < 0x80 ? byte : '?');
        }
        add(report, piece);
    }
    add(report, "\"");
}

void kit_report_list(kit_report *report, const char *name)
{
    if (report->json) {
        add(report, "{");
        add_json_text(report, name);
        add(report, ":[");
    }
}

static void close_row(kit_report *report)
{
    if (report->row_open) {
        add(report, report->json ? "}" : "\n");
    }
    report->row_open = false;
}

void kit_report_row(kit_report *report)
{
    close_row(report);
    if (report->json) {
        add(report, report->rows > 0 ? ",{" : "{");
    }
    report->rows++;
    report->row_open = true;
}

// What stands between two fields; nothing before the first.
static void separate(kit_report *report)
{
    const char last =
        report->length > 0 ? report->text[report->length - 1] : '\n';

    if (report->json) {
        add(report, last == '{' ? "" : ",");
    } else {
        add(report, last == '\n' ? "" : " ");
    }
}

void kit_report_text(kit_report *report, const char *name, const char *value)
{
    separate(report);
    if (report->json) {
        add_json_text(report, name);
        add(report, ":");
        add_json_text(report, value);
    } else {
        char word[WORD_SIZE];
        add(report, name);
        add(report, "=");
        add(report, kit_word(word, sizeof word, value));
    }
}

void kit_report_number(kit_report *report, const char *name, long long value)
{
    char number[32];

    separate(report);
    (void)snprintf(number, sizeof number, "%lld", value);
    if (report->json) {
        add_json_text(report, name);
        add(report, ":");
    } else {
        add(report, name);
        add(report, "=");
    }
    add(report, number);
}

void kit_report_line(kit_report *report, const char *text)
{
    if (report->json) {
        kit_report_row(report);
        kit_report_text(report, "text", text);
    } else {
        add(report, text);
        add(report, "\n");
    }
}

void kit_report_end(kit_report *report)
{
    close_row(report);
    if (!report->json) {
        add(report, "ok\n");
    } else {
        add(report, report->length > 0 ? "]}\n" : "{\"ok\":true}\n");
    }
    if (report->failed) {
        report->failed = false;
        kit_report_error(report, "out of memory");
    }
}

void kit_report_error(kit_report *report, const char *reason)
{
    const bool json = report->json;

    kit_report_free(report);
    report->json = json;
    if (json) {
        add(report, "{\"error\":");
        add_json_text(report, reason);
        add(report, "}\n");
    } else {
        add(report, "error: ");
        add(report, reason);
        add(report, "\n");
    }
}
