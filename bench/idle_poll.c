/* The floor for an idle main loop: a process that does nothing but wait 30 ms
 * at a time, as the daemon's loop does between requests. scripts/bench compares
 * the daemon's CPU time on a still screen with this program's. */
#include <poll.h>
#include <stddef.h>

int main(void) {
    for (;;) {
        (void)poll(NULL, 0, 30); /* nothing to wait for but the timeout */
    }
}
