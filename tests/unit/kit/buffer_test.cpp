#include "kit/buffer.h"

#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>

#include <gtest/gtest.h>

constexpr size_t PAGES = 4;

class KitBuffer : public testing::Test
{
  protected:
    void SetUp() override
    {
        buffer.size = PAGES * KIT_BUFFER_PAGE;
        void *memory = mmap(nullptr, buffer.size, PROT_READ | PROT_WRITE,
                            MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        ASSERT_NE(memory, MAP_FAILED);
        buffer.bytes = static_cast<uint8_t *>(memory);
    }

    void TearDown() override
    {
        munmap(buffer.bytes, buffer.size);
    }

    void fill(size_t count)
    {
        memset(buffer.bytes + buffer.end, 'x', count);
        buffer.end += count;
    }

    size_t pages_in_memory() const
    {
        unsigned char there[PAGES] = {};
        size_t count = 0;
        EXPECT_EQ(mincore(buffer.bytes, buffer.size, there), 0);
        for (const unsigned char page : there) {
            count += page & 1;
        }
        return count;
    }

    kit_buffer buffer = {};
};

TEST_F(KitBuffer, compaction_makes_all_room_one_and_keeps_the_bytes)
{
    fill(KIT_BUFFER_PAGE);
    buffer.bytes[100] = 'y';
    kit_buffer_used(&buffer, 100);
    EXPECT_EQ(kit_buffer_pending(&buffer), KIT_BUFFER_PAGE - 100);
    kit_buffer_compact(&buffer);
    EXPECT_EQ(kit_buffer_pending(&buffer), KIT_BUFFER_PAGE - 100);
    EXPECT_EQ(kit_buffer_room(&buffer), buffer.size - KIT_BUFFER_PAGE + 100);
    EXPECT_EQ(buffer.bytes[0], 'y');
}

TEST_F(KitBuffer, empty_buffer_keeps_one_page_in_memory_when_it_rests)
{
    fill(buffer.size);
    EXPECT_EQ(pages_in_memory(), PAGES);
    kit_buffer_used(&buffer, 1);
    EXPECT_EQ(pages_in_memory(), PAGES);
    EXPECT_FALSE(kit_buffer_large(&buffer));
    kit_buffer_used(&buffer, buffer.size - 1);
    EXPECT_TRUE(kit_buffer_large(&buffer));
    EXPECT_EQ(pages_in_memory(), PAGES);
    kit_buffer_rest(&buffer);
    EXPECT_FALSE(kit_buffer_large(&buffer));
    EXPECT_EQ(pages_in_memory(), 1u);
    EXPECT_EQ(kit_buffer_room(&buffer), buffer.size);
}

TEST_F(KitBuffer, rest_takes_nothing_that_is_pending)
{
    fill(2 * KIT_BUFFER_PAGE);
    kit_buffer_used(&buffer, 1);
    kit_buffer_rest(&buffer);
    EXPECT_EQ(kit_buffer_pending(&buffer), 2 * KIT_BUFFER_PAGE - 1);
    EXPECT_EQ(buffer.bytes[2 * KIT_BUFFER_PAGE - 1], 'x');
}

TEST_F(KitBuffer, keystrokes_alone_make_no_buffer_large)
{
    for (int i = 0; i < 100; i++) {
        fill(1);
        kit_buffer_used(&buffer, 1);
    }
    EXPECT_FALSE(kit_buffer_large(&buffer));
}
