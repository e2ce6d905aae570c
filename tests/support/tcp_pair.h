// A connection over the loopback, which has what a socket pair has not: ends of
// another size, urgent data, a reset.
#pragma once

namespace support
{

// The client's end and the server's. The client takes so few bytes at a time,
// as many as usual with 0.
void tcp_pair(int ends[2], int client_buffer = 0);

} // namespace support
