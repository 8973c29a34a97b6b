// One survey pass: every port probed at once from one event loop.  One packet
// socket sends the DISCOVER and the ARP probe out of each port and reads
// every reply, told apart by the port it came in on, until the window closes.
#ifndef LANPROBE_SURVEY_SURVEY_RUN_H
#define LANPROBE_SURVEY_SURVEY_RUN_H

#include <stdint.h>
#include <time.h>

#include <type_traits>

extern "C" {
#include <libubox/uloop.h>
}

#include "survey/dhcp_reply.h"
#include "survey/lan_ports.h"

#define SURVEY_MAX_REPLIES 16
#define SURVEY_MAX_CLAIMS 8
// A DISCOVER or ARP probe that drew no answer is sent once more after this
// long: the first frame out of a port whose link has just come up, or to a
// switch still learning addresses, is the one most often lost, and one repeat
// a second later costs nothing on a port that stays silent.
#define SURVEY_RETRY_MS 1000

struct PortProbe {
    SurveyPort port;
    uint32_t xid;
    uint8_t client_mac[6];
    uint8_t discovers, arp_probes;  // frames sent
    int error;                      // errno of a failed socket call, 0 when none
    struct timespec sent_at;        // first DISCOVER
    uint8_t n_replies, n_claims;
    DhcpReply replies[SURVEY_MAX_REPLIES];
    uint8_t claims[SURVEY_MAX_CLAIMS][6];  // MACs answering ARP for the router's address
};

struct Survey {
    PortProbe *probes;
    int n;
    RouterInfo router;
    int window_ms;
    struct uloop_fd sock;
    struct uloop_timeout window, retry;
};
static_assert(std::is_standard_layout_v<Survey>, "the timers use container_of");

// Opens the socket, sends, runs the loop for the window and closes
// everything.  0, or -errno when the event loop could not start; when the
// socket or a send fails, the port keeps its errno in PortProbe::error.
int run_survey(Survey *s);

// Records r on p unless the same server already said the same thing.
void record_reply(PortProbe *p, const DhcpReply &r);

#endif
