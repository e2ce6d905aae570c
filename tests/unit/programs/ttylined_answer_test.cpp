#include "programs/ttylined/answer.h"

#include <gtest/gtest.h>

TEST(Answer, ends_with_how_it_went)
{
    answer reply;

    EXPECT_EQ(answer_end(reply), "ok\n");
    answer_note(reply, "ok", "sent");
    EXPECT_EQ(answer_end(reply), "ok: sent\nok\n");
    answer_error(reply, "none left");
    EXPECT_EQ(answer_end(reply), "error: none left\n");
}

TEST(Answer, is_one_object_on_one_line)
{
    answer reply;

    reply.json = true;
    EXPECT_EQ(answer_end(reply), "{\"ok\":true}\n");
    answer_fact(reply, "name", "a\"b\\c\n\xc3");
    answer_fact(reply, "count", 7);
    EXPECT_EQ(answer_end(reply),
              "{\"name\":\"a\\\"b\\\\c\\u000a?\",\"count\":7}\n");
    answer_error(reply, "none left");
    EXPECT_EQ(answer_end(reply), "{\"error\":\"none left\"}\n");
}

TEST(Answer, has_tables_for_both)
{
    for (const bool json : {false, true}) {
        answer reply;
        reply.json = json;
        answer_table(
            reply, "lines",
            {{"line", 5, true}, {"speed", 5, true}, {"peer", 0, false}});
        answer_row(reply, {"258", "-", "somebody"});
        answer_row(reply, {"259", "9600", "-"});
        answer_table_end(reply);
        EXPECT_EQ(answer_end(reply),
                  json ? "{\"lines\":[{\"line\":258,\"peer\":\"somebody\"},"
                         "{\"line\":259,\"speed\":9600}]}\n"
                       : "line  speed peer\n258   -     somebody\n"
                         "259   9600  -\nok\n");
    }
}

TEST(Answer, has_lines_without_names)
{
    for (const bool json : {false, true}) {
        answer reply;
        reply.json = json;
        answer_list(reply, "help");
        answer_row(reply, {"first"});
        answer_row(reply, {"second"});
        answer_table_end(reply);
        EXPECT_EQ(answer_end(reply), json ? "{\"help\":[{\"text\":\"first\"},"
                                            "{\"text\":\"second\"}]}\n"
                                          : "first\nsecond\nok\n");
    }
}
