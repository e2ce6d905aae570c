// What the fuzz targets share: checks that end the process, an input taken
// apart byte by byte, a runtime directory in memory, guarded buffers.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>

// What a target is: one run on one input. Returns 0.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

// Unlike assert() it is there in every kind of build.
#define FUZZ_CHECK(condition)                                                  \
    ((condition) ? static_cast<void>(0)                                        \
                 : fuzz::fail(#condition, __FILE__, __LINE__))

namespace fuzz
{

// Says what does not hold and aborts, which the fuzzer records as a finding.
[[noreturn]] void fail(const char *condition, const char *file, int line);

// The bytes of an input. Behind its end everything is zero or empty, so that
// every input means something.
class input
{
  public:
    input(const uint8_t *data, size_t size);

    size_t left() const;
    uint8_t take8();
    uint16_t take16();
    uint32_t take32();
    uint64_t take64();
    // At most count bytes, fewer at the end.
    std::string take(size_t count);
    std::string rest();
    // At most count bytes up to a zero byte, which is taken too and left out:
    // a text that a C string can hold.
    std::string text(size_t count);

  private:
    const uint8_t *next_;
    size_t left_;
};

// Makes an empty directory, in memory where the machine has such a place,
// and removes it when the process exits. TMPDIR names it from then on. Call it
// once.
std::string runtime_directory();

std::string slurp(const std::string &path);
void spill(const std::string &path, const std::string &content);

// The number of a free descriptor, behind as many free ones as the libraries
// ever use at once: unequal before and after when one of them was left open.
int free_descriptor();

// A buffer of any size, filled with a pattern, between two guards.
class guarded
{
  public:
    explicit guarded(size_t size);

    char *data();
    // Whether the guards are as they were.
    bool intact() const;
    // Whether the buffer too is as it was.
    bool untouched() const;
    // The whole buffer.
    std::string content() const;

  private:
    std::string bytes_;
    size_t size_;
};

} // namespace fuzz
