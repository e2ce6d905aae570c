// Answers on the control socket, in both forms.
#include <string>

#include <gtest/gtest.h>

#include "kit/report.h"

static std::string two_rows(bool json)
{
    kit_report report;

    kit_report_begin(&report, json);
    kit_report_list(&report, "lines");
    kit_report_row(&report);
    kit_report_number(&report, "line", 258);
    kit_report_text(&report, "user", "a b\"c\\d\n\xff");
    kit_report_row(&report);
    kit_report_text(&report, "user", "");
    kit_report_end(&report);
    std::string text = report.text;
    kit_report_free(&report);
    return text;
}

TEST(KitReport, text_is_a_row_of_words_a_line_and_ok)
{
    EXPECT_EQ(two_rows(false),
              "line=258 user=a%20b%22c%5Cd%0A%FF\nuser=-\nok\n");
}

TEST(KitReport, json_is_an_object_with_a_list)
{
    EXPECT_EQ(two_rows(true),
              "{\"lines\":[{\"line\":258,\"user\":\"a b\\\"c\\\\d\\u000a?\"},"
              "{\"user\":\"\"}]}\n");
}

TEST(KitReport, answer_without_rows_is_ok)
{
    for (const bool json : {false, true}) {
        kit_report report;
        kit_report_begin(&report, json);
        kit_report_end(&report);
        EXPECT_STREQ(report.text, json ? "{\"ok\":true}\n" : "ok\n");
        kit_report_free(&report);
    }
}

TEST(KitReport, error_replaces_what_was_said)
{
    for (const bool json : {false, true}) {
        kit_report report;
        kit_report_begin(&report, json);
        kit_report_list(&report, "lines");
        kit_report_row(&report);
        kit_report_error(&report, "no \"line\"");
        EXPECT_STREQ(report.text, json ? "{\"error\":\"no \\\"line\\\"\"}\n"
                                       : "error: no \"line\"\n");
        kit_report_free(&report);
    }
}

TEST(KitReport, long_answer_grows)
{
    kit_report report;
    kit_report_begin(&report, false);
    for (int i = 0; i < 5000; i++) {
        kit_report_row(&report);
        kit_report_number(&report, "line", i);
    }
    kit_report_end(&report);
    const std::string text = report.text;
    EXPECT_EQ(text.size(), report.length);
    EXPECT_NE(text.find("\nline=4999\nok\n"), std::string::npos);
    kit_report_free(&report);
}
