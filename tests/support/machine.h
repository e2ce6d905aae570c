// Tests that cannot hold in one of the machines of tests/machines/. They say so
// as the first thing they do, run all the same, and the machine's runner
// expects them to fail: one that holds after all is a failure.
#pragma once

namespace support
{

// In the machine of tests/machines/tipc/run, where a test is linked statically:
// the calls of the C++ library are wrapped then as well (see fault.h).
void not_in_guest(const char *reason);
// In the emulator of tests/machines/cross/run.
void not_in_emulator(const char *reason);

// A reason of several tests: who blocks every signal finds 63 and 64 missing
// when he asks for his mask.
constexpr char SIGNALS_KEPT[] = "it keeps two real-time signals for itself";

} // namespace support
