/* Built without PIE, so that the linker copies the library's data here. */
#include <stdio.h>

#include <ttyline/vc.h>

int main(void)
{
    if (g_vc_accept_list.next != &g_vc_accept_list ||
        g_vc_accept_list.prev != &g_vc_accept_list) {
        fprintf(stderr, "the empty list does not lead to itself\n");
        return 1;
    }
    if (g_vc_tty_socket != -1) {
        fprintf(stderr, "connected before the start\n");
        return 1;
    }
    return 0;
}
