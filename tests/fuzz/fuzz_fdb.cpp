// Candidate selection from forwarding-database records as the kernel delivers
// them.  Input: the bridge port numbers (signed 8 bits) of the interface
// records eth0..eth3, then 16-byte records (a trailing partial one is not
// delivered by the reader, and is dropped here too).
#include <string.h>

#include "bridge/fdb.h"
#include "fuzz/sandbox.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 4)
        return 0;
    const char *names[] = {"eth0", "eth1", "eth2", "eth3"};
    t_device *head = nullptr;
    for (int i = 0; i < 4; i++)
        FUZZ_CHECK(add_br_device(names[i], static_cast<int8_t>(data[i]), i + 1, &head) == 0);
    const int count = static_cast<int>((size - 4) / FDB_ENTRY_SIZE);
    auto *fdb = static_cast<t_fdb_entry *>(malloc(count * sizeof(t_fdb_entry) + 1));
    memcpy(fdb, data + 4, count * sizeof(t_fdb_entry));
    mark_connected_ports(head, fdb, count, "update_brlan_valid_dev");
    // The oracle: each non-local entry selects the first record whose signed
    // port number equals the entry's unsigned one (so only ports 0..127 match).
    bool expect[4] = {};
    for (int r = 0; r < count; r++)
        for (int i = 0; i < 4 && !fdb[r].is_local; i++)
            if (static_cast<int8_t>(data[i]) == fdb[r].port_no) {
                expect[i] = true;
                break;
            }
    int i = 0;
    for (t_device *d = head; d; d = static_cast<t_device *>(d->hh.next), i++)
        FUZZ_CHECK(d->connected == expect[i]);
    free(fdb);
    release_all_device(&head);
    return 0;
}
