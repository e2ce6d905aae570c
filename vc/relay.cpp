// The relay steps: the bytes are moved by the service's callbacks; here it is
// only decided what their result means.
#include "vc/relay.h"

#include <errno.h>
#include <string.h>

#include "vc/teardown.h"

int vc_indata_proc(vc_child *child)
{
    if (child == nullptr) {
        vc_debug_msg("vc: indata-proc, tel not found\r\n");
        return -1;
    }
    const int result = child->reg.read_func(child->ttyno);
    if (result < 0) {
        vc_debug_msg("vc: indata-proc, tel read fail, err:%s.\r\n",
                     strerror(errno));
        vc_child_kill(child);
        return -1;
    }
    return result;
}

int vc_outdata_proc(vc_child *child)
{
    if (child == nullptr) {
        vc_debug_msg("vc: outdata-proc, tel not found\r\n");
        return -1;
    }
    const int result = child->reg.write_func(child->ttyno);
    if (result < 0) {
        vc_debug_msg("vc: outdata-proc, tel write fail, err:%s.\r\n",
                     strerror(errno));
        vc_child_kill(child);
        return -1;
    }
    return result;
}
