// System calls made to fail. The linker turns the calls of everything that is
// linked statically into wrappers (fault.cmake holds the list), which do the
// call unless a rule says otherwise.
#pragma once

#include <stddef.h>

namespace fault
{

constexpr int ALWAYS = 0x7fffffff;

// Which calls a rule counts and changes; each member may be left out.
struct filter {
    // Part of the path, or of the path behind the descriptor.
    const char *path = nullptr;
    int fd = -1;
    // The number that says what the call is to do: the flags of open(), the
    // command of fcntl(), the request of ioctl(), the length of connect()'s
    // address, the signal, the how of pthread_sigmask(), the number of
    // syscall().
    long what = -1;
};

filter only_path(const char *part);
filter only_fd(int fd);
filter only_what(long what);

// All of these arm a rule for the calls of this name: it changes the nth call
// from now on (from 1) that passes the filter, and the times - 1 calls after
// it. Any thread's calls count. They return a handle for seen(). A test has
// room for 32 rules; the first rule that applies decides.

// The call is not done; it gives -1 or a null pointer and this errno (the
// functions of pthreads and ptsname_r() return it).
int fail(const char *name, int nth, int error, int times = 1,
         const filter &where = {});
// The call is not done; it gives this result and errno stays.
int result(const char *name, int nth, long value, int times = 1,
           const filter &where = {});
// read, write, recv, send: is done with at most this many bytes.
int shorten(const char *name, int nth, size_t bytes, int times = 1,
            const filter &where = {});
// before() is called, then the call is done. Its own calls are not counted.
int run(const char *name, int nth, void (*before)(), int times = 1,
        const filter &where = {});
// getsockname, getpeername: the call is not done; it gives this address, as a
// machine that has the family would. One address at a time.
int name(const char *name, int nth, const void *address, size_t length);
// Changes nothing, only counts.
int watch(const char *name, const filter &where = {});

// How many calls the rule counted; all calls of this name since the start of
// the process or the last reset().
int seen(int handle);
int calls(const char *name);

// Drops all rules and counts.
void reset();

// From now on, while replacing(true) holds, calls of this name come to another
// function instead, whatever the rules say: REPLACE_CALL(name, function), of
// the same parameters and result. For a whole kernel that is not there.
void replace_with(const char *name, void (*function)());
void replacing(bool on);

template <typename R, typename... A>
void replace(const char *name, R (*function)(A...), R (*)(A...))
{
    replace_with(name, reinterpret_cast<void (*)()>(function));
}
template <typename R, typename... A>
void replace(const char *name, R (*function)(A..., ...), R (*)(A..., ...))
{
    replace_with(name, reinterpret_cast<void (*)()>(function));
}
#define REPLACE_CALL(name, function) fault::replace(#name, function, name)

} // namespace fault
