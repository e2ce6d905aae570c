#include "programs/shared/keys.h"

#include <ttyline/kit.h>

bool key_known(const std::string &name)
{
    for (unsigned i = 0; kit_key(i) != nullptr; i++) {
        if (name == kit_key(i)) {
            return true;
        }
    }
    return false;
}
