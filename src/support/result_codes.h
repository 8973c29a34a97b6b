// Result codes shared by every module: 0 for success, failures as the negated
// Linux error number that has the same value.
#ifndef LANPROBE_SUPPORT_RESULT_CODES_H
#define LANPROBE_SUPPORT_RESULT_CODES_H

#include <errno.h>

enum : int {
    LP_OK = 0,
    LP_ERR_INVALID = -EADDRNOTAVAIL,    // -99 invalid or missing argument
    LP_ERR_NOMEM = -EADDRINUSE,         // -98 allocation failed
    LP_ERR_EXISTS = -EAFNOSUPPORT,      // -97 already present
    LP_ERR_NOT_FOUND = -EPFNOSUPPORT,   // -96 not present
    LP_ERR_CONFIG = -EOPNOTSUPP,        // -95 a configuration source cannot be read
    LP_ERR_SOCKET = -ENOPROTOOPT,       // -92 socket cannot be created
    LP_ERR_NO_SOCKET = -EPROTOTYPE,     // -91 no open socket (or the ARP check could not run)
    LP_ERR_BIND_DEVICE = -EMSGSIZE,     // -90 socket cannot be tied to its port
    LP_ERR_BIND = -EDESTADDRREQ,        // -89 socket cannot be bound
    LP_ERR_SEND = -ENOTSOCK,            // -88 send failed
    LP_ERR_QUERY = -EUSERS,             // -87 interface query or wait failed
    LP_ERR_FDB = -ELIBEXEC,             // -83 forwarding database unreadable
};

// Positive codes of the two sweep judges.
enum : int {
    LP_SWEEP_WAITING = 0,
    LP_SWEEP_TIMEOUT = 96,
    LP_SWEEP_ALL_ANSWERED = 97,
    LP_SWEEP_IDLE = 98,
};

static_assert(LP_ERR_INVALID == -99 && LP_ERR_NOMEM == -98 && LP_ERR_EXISTS == -97 &&
                  LP_ERR_NOT_FOUND == -96 && LP_ERR_CONFIG == -95 && LP_ERR_SOCKET == -92 &&
                  LP_ERR_NO_SOCKET == -91 && LP_ERR_BIND_DEVICE == -90 && LP_ERR_BIND == -89 &&
                  LP_ERR_SEND == -88 && LP_ERR_QUERY == -87 && LP_ERR_FDB == -83,
              "result codes are the negated Linux errno values");

#endif
