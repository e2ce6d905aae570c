// Sessions and their ids.
#include "kit/table.h"

#include <errno.h>
#include <string.h>

#include <string>

#include <gtest/gtest.h>

#include "tests/support/fault.h"
#include "tests/support/fault_row.h"
#include "tests/support/runtime.h"

class KitTable : public support::nothing_left
{
};

static std::string made_id(int line)
{
    kit_entry *entry = kit_entry_make(line);
    std::string id = entry->session.id;

    EXPECT_EQ(id.size(), 16u);
    EXPECT_EQ(std::stoll(id.substr(0, 8), nullptr, 16), entry->session.begin);
    kit_entry_free(entry);
    return id;
}

TEST_F(KitTable, ids_of_one_moment_differ_without_a_source_of_chance)
{
    fault_row("kit_entry_make", "getrandom", "EAGAIN", "the session", "",
              "an id made of the clock and the line");
    fault_row("kit_entry_make", "getrandom", "result 3", "the session", "",
              "an id made of the clock and the line");
    EXPECT_NE(made_id(300), made_id(300));
    fault::fail("getrandom", 1, EAGAIN, 2);
    EXPECT_NE(made_id(300).substr(8), made_id(301).substr(8));
    fault::result("getrandom", 1, 3, 2);
    EXPECT_NE(made_id(300).substr(8), made_id(301).substr(8));
}

TEST_F(KitTable, number_that_is_no_line_has_no_session)
{
    EXPECT_EQ(kit_entry_at(-1), nullptr);
    EXPECT_EQ(kit_entry_at(TTY_LINES), nullptr);
    kit_entry *entry = kit_entry_make(0);
    kit_table_put(entry);
    EXPECT_EQ(kit_entry_at(0), entry);
    EXPECT_EQ(kit_table_next(0), 0);
    kit_table_take(entry);
    EXPECT_EQ(kit_table_next(0), TTY_LINES);
    kit_entry_free(entry);
}
