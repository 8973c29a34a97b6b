// Linked into the ARP fuzz targets only: the blocking probe's waits return at
// once.  select (the wait of up to 300 ms before each send) becomes a poll of
// the same sets without a time-out, which is what the wait amounts to when
// the time runs out; usleep (the 310 ms pause before the reads) hands over to
// the wire, which puts the input's frames on it.  With real waits a target
// would manage two inputs a second.
#include <sys/select.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include "fuzz/arp_wire.h"

extern "C" int usleep(useconds_t)
{
    if (arpwire::on_pause)
        arpwire::on_pause();
    return 0;
}

extern "C" int select(int nfds, fd_set *readfds, fd_set *writefds, fd_set *exceptfds,
                      struct timeval *)
{
    struct timespec zero = {0, 0};
    return static_cast<int>(
        syscall(SYS_pselect6, nfds, readfds, writefds, exceptfds, &zero, nullptr));
}
