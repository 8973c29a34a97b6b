// Result codes shared by every module: 0 for success, failures as fixed
// negative numbers.  They are the values of the negated x86/ARM Linux error
// numbers (EADDRNOTAVAIL is 99 there), but they are written as numbers: MIPS
// numbers its errno values differently (EADDRNOTAVAIL is 126), and callers on
// every router must see the same codes.
#ifndef LANPROBE_SUPPORT_RESULT_CODES_H
#define LANPROBE_SUPPORT_RESULT_CODES_H

enum : int {
    LP_OK = 0,
    LP_ERR_INVALID = -99,       // invalid or missing argument
    LP_ERR_NOMEM = -98,         // allocation failed
    LP_ERR_EXISTS = -97,        // already present
    LP_ERR_NOT_FOUND = -96,     // not present
    LP_ERR_CONFIG = -95,        // a configuration source cannot be read
    LP_ERR_SOCKET = -92,        // socket cannot be created
    LP_ERR_NO_SOCKET = -91,     // no open socket (or the ARP check could not run)
    LP_ERR_BIND_DEVICE = -90,   // socket cannot be tied to its port
    LP_ERR_BIND = -89,          // socket cannot be bound
    LP_ERR_SEND = -88,          // send failed
    LP_ERR_QUERY = -87,         // interface query or wait failed
    LP_ERR_FDB = -83,           // forwarding database unreadable
};

// Positive codes of the two sweep judges.
enum : int {
    LP_SWEEP_WAITING = 0,
    LP_SWEEP_TIMEOUT = 96,
    LP_SWEEP_ALL_ANSWERED = 97,
    LP_SWEEP_IDLE = 98,
};

#endif
