// What a record should come to: the service's rules once more, carried out on a
// picture.
#pragma once

#include <stdint.h>

#include <vector>

#include <ttyline/vc.h>

#include "tests/fuzz/dispatch_state.h"

namespace dispatch
{

// What a record should come to.
struct outcome {
    picture state;
    int result = 0;
    bool opens = false; // the service of this place gets a new listener
    size_t opened = 0;
    bool starts = false; // the record's line gets a session
    bool answered = false;
    uint32_t answer = 0;
    std::vector<int> cleaned; // lines, in any order
};

// What the whole record comes to, while this fails (see kernel.h) and another
// thread stops this protocol in the middle of a permit (-1: none does).
outcome expect(const picture &before, const tty_cmsg &msg, uint32_t failing,
               int stopped_meanwhile);
// What the end of the connection comes to.
outcome expect_reset(const picture &before);

} // namespace dispatch
