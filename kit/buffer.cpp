// An idle session has nothing in memory but what a keystroke needs. Pages are
// given back at rest and not whenever a buffer is empty: that it is all the
// time while much is moved, and the next read takes each of them anew.
#include "kit/buffer.h"

#include <string.h>
#include <sys/mman.h>

void kit_buffer_compact(kit_buffer *buffer)
{
    if (buffer->start > 0) {
        memmove(buffer->bytes, buffer->bytes + buffer->start,
                kit_buffer_pending(buffer));
        buffer->end -= buffer->start;
        buffer->start = 0;
    }
}

void kit_buffer_used(kit_buffer *buffer, size_t count)
{
    if (buffer->end > buffer->highest) {
        buffer->highest = buffer->end;
    }
    buffer->start += count;
    if (buffer->start == buffer->end) {
        buffer->start = buffer->end = 0;
    }
}

bool kit_buffer_large(const kit_buffer *buffer)
{
    return buffer->highest > KIT_BUFFER_PAGE && kit_buffer_pending(buffer) == 0;
}

void kit_buffer_rest(kit_buffer *buffer)
{
    if (kit_buffer_large(buffer)) {
        madvise(buffer->bytes + KIT_BUFFER_PAGE, buffer->size - KIT_BUFFER_PAGE,
                MADV_DONTNEED);
        buffer->highest = 0;
    }
}
