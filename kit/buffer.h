// Bytes on their way: filled at the end, taken from the start.
#pragma once

#include <stddef.h>
#include <stdint.h>

constexpr size_t KIT_BUFFER_PAGE = 4096;

struct kit_buffer {
    uint8_t *bytes;
    size_t size;
    size_t start;
    size_t end;
    size_t highest; // end of all that has been taken since its last rest
};

inline size_t kit_buffer_pending(const kit_buffer *buffer)
{
    return buffer->end - buffer->start;
}

inline size_t kit_buffer_room(const kit_buffer *buffer)
{
    return buffer->size - buffer->end;
}

// Makes all free room one, at the end.
void kit_buffer_compact(kit_buffer *buffer);

// So many bytes have been taken.
void kit_buffer_used(kit_buffer *buffer, size_t count);

// Whether it is empty and was filled beyond its first page.
bool kit_buffer_large(const kit_buffer *buffer);

// One that is gives the other pages back.
void kit_buffer_rest(kit_buffer *buffer);
