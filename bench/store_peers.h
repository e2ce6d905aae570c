// The line library's store and what else a program would keep values in, each
// behind the same two operations.
//
// What is left after a power failure differs. The line library writes each
// line of the new file synchronously and then renames it: the old or the new
// content is there, and a set that has returned may be lost with the rename.
// The others are set up to promise the same where they can: SQLite keeps a
// write-ahead log with synchronous=NORMAL, LMDB syncs its data and not its
// meta page (MDB_NOMETASYNC). MDB_NOSYNC would be faster and could leave a
// broken file. utmpx promises nothing.
#pragma once

#include <memory>
#include <string>

constexpr unsigned int FIRST_LINE = 300;
constexpr int LINES = 8;
// With its terminator.
constexpr int VALUE_SIZE = 13;

// One process's handle, opened by itself.
class store
{
  public:
    virtual ~store() = default;
    virtual bool set(unsigned int line, const char *key, const char *value) = 0;
    virtual bool get(unsigned int line, const char *key,
                     char (&value)[VALUE_SIZE]) = 0;
};

// fill() makes all keys of LINES lines in an empty directory. Both throw
// std::runtime_error.
struct peer {
    const char *name;
    void (*fill)(const std::string &directory, const char *value);
    std::unique_ptr<store> (*open)(const std::string &directory);
};

constexpr int PEERS = 4;
extern const peer peers[PEERS];
