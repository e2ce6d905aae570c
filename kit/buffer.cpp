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
    const bool was_large = buffer->end > KIT_BUFFER_PAGE;

    buffer->start += count;
    if (buffer->start == buffer->end) {
        buffer->start = buffer->end = 0;
        if (was_large) {
            madvise(buffer->bytes + KIT_BUFFER_PAGE,
                    buffer->size - KIT_BUFFER_PAGE, MADV_DONTNEED);
        }
    }
}
