#include "arp/arp_sweep.h"

#include <linux/if_packet.h>
#include <net/if.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "arp/arp_packet.h"
#include "support/byte_view.h"
#include "support/log.h"
#include "support/result_codes.h"
#include "support/term_request.h"

// Sockets of the event-loop sweep stay blocking: uloop calls the handler only
// when a frame is queued, and the handler reads one frame per call.
#define ARP_SWEEP_FD_FLAGS (ULOOP_READ | ULOOP_BLOCKING | ULOOP_ERROR_CB)

bool arp_same_subnet(uint32_t addr, uint32_t br_ip, uint32_t br_netmask)
{
    return ((addr ^ br_ip) & br_netmask) == 0;
}

namespace {

void forget_slot_target(t_arp_detect &slot)
{
    memset(slot.target_mac, 0, MAC_LEN);
    slot.target_ip = 0;
}

void close_slot(t_arp_detect &slot)
{
    uloop_fd_delete(&slot.ufd);
    close(slot.ufd.fd);
    slot.ufd.fd = -1;
}

// A reply from the expected host whose address is not the one asked for is
// still an answer; it only costs the entry its place when the new address is
// outside br-lan's subnet.  Logged under the reading operation's name (op).
void apply_subnet_rule(const t_arp_detect &slot, uint32_t sender_ip, const char *op)
{
    if (!arp_same_subnet(sender_ip, arp_detect_handle.br_ip, arp_detect_handle.br_netmask)) {
        LOG_MSG_AS(op, LOG_LEVEL_INFO,
                   "arp reply new is not same subnet with br-lan! remove it from arp hash table!\n");
        if (arp_detect_handle.arp_table)
            remove_arp_entry(arp_detect_handle.arp_table, slot.target_mac);
    } else {
        LOG_MSG_AS(op, LOG_LEVEL_DEBUG, "arp reply new ip still remains same subnet with br-lan!\n");
    }
}

// The set-up and sends both sweep forms share, logged under the name of the
// form that runs them (op): checks, a fresh run, one slot per entry, one
// request per slot.
int start_sweep(const char *op, bool blocking, t_arp_entry **arp_table, uint32_t br_ip,
                uint32_t br_netmask, const uint8_t *br_mac, int ifindex)
{
    if (!arp_table || !*arp_table || br_ip == 0 || br_netmask == 0 || !br_mac) {
        LOG_MSG_AS(op, LOG_LEVEL_ERROR, "invalid parameters! Send failed!\n");
        return LP_ERR_INVALID;
    }
    if (arp_detect_handle.arp_detect_array) {
        LOG_MSG_AS(op, LOG_LEVEL_NOTICE, "Last time handle not release, release it before resend!\n");
        release_arp_detect_handle(&arp_detect_handle);
    }

    // The slot count is 8 bits wide: a table of 256 entries counts as none,
    // and of a bigger one only the first (count mod 256) entries get a slot.
    arp_detect_handle.arp_num = static_cast<uint8_t>(get_arp_entry_count(*arp_table));
    if (arp_detect_handle.arp_num == 0) {
        LOG_MSG_AS(op, LOG_LEVEL_ERROR, "No arp entry in arp_table_hashmap_head!\n");
        return LP_ERR_INVALID;
    }
    arp_detect_handle.arp_detect_array =
        static_cast<t_arp_detect *>(calloc(arp_detect_handle.arp_num, sizeof(t_arp_detect)));
    if (!arp_detect_handle.arp_detect_array) {
        LOG_MSG_AS(op, LOG_LEVEL_ERROR, "Failed to malloc %d t_arp_detect struct\n",
                arp_detect_handle.arp_num);
        arp_detect_handle.arp_num = 0;
        return LP_ERR_NOMEM;
    }
    arp_detect_handle.arp_table = arp_table;
    arp_detect_handle.br_ip = br_ip;
    arp_detect_handle.br_netmask = br_netmask;
    memcpy(arp_detect_handle.br_mac, br_mac, MAC_LEN);
    arp_detect_handle.ifindex = ifindex;

    unsigned i = 0;
    for (t_arp_entry *e = *arp_table; e && i < arp_detect_handle.arp_num;
         e = static_cast<t_arp_entry *>(e->hh.next), i++) {
        t_arp_detect &slot = arp_detect_handle.arp_detect_array[i];
        if (init_arp_sockfd(&slot, nullptr, e->mac, e->ip) != 0) {
            LOG_MSG_AS(op, LOG_LEVEL_ERROR, "Failed to init ARP socket for: %s|%02X-%02X-%02X-%02X-%02X-%02X\n",
                    ip_text(e->ip).text, MAC_ARGS(e->mac));
            forget_slot_target(slot);
            continue;
        }
        if (blocking)
            memcpy(slot.src_mac, br_mac, MAC_LEN);
        LOG_MSG_AS(op, LOG_LEVEL_DEBUG,
                "Arp packet sockfd init success in for: %s|%02X-%02X-%02X-%02X-%02X-%02X\n",
                ip_text(e->ip).text, MAC_ARGS(e->mac));
    }

    for (i = 0; i < arp_detect_handle.arp_num; i++) {
        t_arp_detect &slot = arp_detect_handle.arp_detect_array[i];
        LOG_MSG_AS(op, LOG_LEVEL_DEBUG, "Ready to send Arp packet for: %s|%02X-%02X-%02X-%02X-%02X-%02X\n",
                ip_text(slot.target_ip).text, MAC_ARGS(slot.target_mac));
        int rc = blocking ? send_arp_unicast_packet_blocked(&slot) : send_arp_unicast_packet(&slot);
        if (rc != 0) {
            LOG_MSG_AS(op, LOG_LEVEL_ERROR, "Failed to send ARP socket for: %s|%02X-%02X-%02X-%02X-%02X-%02X\n",
                    ip_text(slot.target_ip).text, MAC_ARGS(slot.target_mac));
            forget_slot_target(slot);
        } else {
            LOG_MSG_AS(op, LOG_LEVEL_DEBUG, "Send Arp packet success for: %s|%02X-%02X-%02X-%02X-%02X-%02X\n",
                    ip_text(slot.target_ip).text, MAC_ARGS(slot.target_mac));
        }
    }
    return 0;
}

}  // namespace

int send_arp_packet_all(t_arp_entry **arp_table, uint32_t br_ip, uint32_t br_netmask,
                        const uint8_t *br_mac, int ifindex)
{
    LOG_MSG(LOG_LEVEL_DEBUG, "Entering function: send_arp_packet_all!\n");
    return start_sweep(__func__, false, arp_table, br_ip, br_netmask, br_mac, ifindex);
}

int send_arp_unicast_packet(t_arp_detect *slot)
{
    LOG_MSG(LOG_LEVEL_DEBUG, "Entering function: send_arp_unicast_packet!\n");
    if (slot->ufd.fd <= 0) {
        LOG_MSG(LOG_LEVEL_ERROR, "Skip sending arp packet due to socket error!\n");
        return LP_ERR_NO_SOCKET;
    }

    // A unicast question to the known host, asked from br-lan itself.
    uint8_t frame[ARP_FRAME_LEN];
    build_arp_request(frame, slot->target_mac, arp_detect_handle.br_mac, arp_detect_handle.br_ip,
                      slot->target_mac, slot->target_ip);

    uloop_fd_delete(&slot->ufd);
    int rc = send_arp_frame(slot, frame, __func__);
    if (rc != 0)
        return rc;
    uloop_fd_add(&slot->ufd, ARP_SWEEP_FD_FLAGS);
    return 0;
}

void recv_arp_packet(struct uloop_fd *u, unsigned int events)
{
    t_arp_detect *slot = container_of(u, t_arp_detect, ufd);
    LOG_MSG(LOG_LEVEL_DEBUG, "recv ARP packet from mac:%02X-%02X-%02X-%02X-%02X-%02X\n",
            MAC_ARGS(slot->target_mac));
    if (!(events & ULOOP_READ))
        return;

    uint8_t buf[ARP_RECV_BUF_LEN];
    memset(buf, 0, sizeof(buf));
    // MSG_DONTWAIT: the socket is blocking, and a wake-up without a frame must
    // not stall the loop.
    ssize_t n = recvfrom(u->fd, buf, sizeof(buf), MSG_DONTWAIT, nullptr, nullptr);
    if (n <= 0) {
        LOG_MSG(LOG_LEVEL_ERROR, "Cannot read from socket, try again! mac:%02X-%02X-%02X-%02X-%02X-%02X\n",
                MAC_ARGS(slot->target_mac));
        return;
    }
    // Judged over the whole cleared buffer: bytes a short frame did not
    // bring read as zero.
    const ByteView frame(buf, sizeof(buf));

    if (!frame.equals(ARP_OFF_ETH_SRC, slot->target_mac, MAC_LEN)) {
        LOG_MSG(LOG_LEVEL_ERROR,
                "Not match eth header:%02X-%02X-%02X-%02X-%02X-%02X|%02X-%02X-%02X-%02X-%02X-%02X\n",
                MAC_ARGS(buf + ARP_OFF_ETH_SRC), MAC_ARGS(slot->target_mac));
        return;
    }
    if (!frame.equals(ARP_OFF_SHA, slot->target_mac, MAC_LEN)) {
        LOG_MSG(LOG_LEVEL_ERROR,
                "Not match arp packet mac:%02X-%02X-%02X-%02X-%02X-%02X|%02X-%02X-%02X-%02X-%02X-%02X\n",
                MAC_ARGS(buf + ARP_OFF_SHA), MAC_ARGS(slot->target_mac));
        return;
    }
    uint32_t sender_ip = 0;
    if (!arp_reply_sender_ip(frame, &sender_ip)) {
        LOG_MSG(LOG_LEVEL_ERROR, "Not a arp reply packet\n");
        return;
    }

    if (sender_ip == slot->target_ip) {
        LOG_MSG(LOG_LEVEL_DEBUG, "arp reply success in %s|%02X-%02X-%02X-%02X-%02X-%02X\n",
                ip_text(sender_ip).text, MAC_ARGS(buf + ARP_OFF_SHA));
    } else {
        LOG_MSG(LOG_LEVEL_INFO, "arp reply receieve a different ip:%s, orig:%s\n",
                ip_text(sender_ip).text, ip_text(slot->target_ip).text);
        apply_subnet_rule(*slot, sender_ip, __func__);
    }
    slot->replied = 1;
    close_slot(*slot);
}

int process_arp_detect_all(int timeout)
{
    LOG_MSG(LOG_LEVEL_DEBUG, "Entering function: process_arp_detect_all!\n");

    t_arp_detect *slots = arp_detect_handle.arp_detect_array;
    unsigned num = arp_detect_handle.arp_num;
    int result;
    if (!slots) {
        LOG_MSG(LOG_LEVEL_INFO, "arp detect array is null, no packet sent yet, treat as detect over!\n");
        result = LP_SWEEP_IDLE;
    } else if (num == 0) {
        LOG_MSG(LOG_LEVEL_ERROR, "Should never happen, valid arp detect array while device count is 0!\n");
        result = LP_ERR_INVALID;
    } else {
        bool all = true;
        for (unsigned i = 0; i < num; i++)
            all = all && slots[i].replied == 1;
        if (timeout)
            result = all ? LP_SWEEP_ALL_ANSWERED : LP_SWEEP_TIMEOUT;
        else if (!all)
            return LP_SWEEP_WAITING;
        else
            result = LP_SWEEP_ALL_ANSWERED;
    }

    for (unsigned i = 0; slots && i < num; i++) {
        t_arp_detect &slot = slots[i];
        LOG_MSG(LOG_LEVEL_DEBUG, "Processing arp reply for: %s|%02X-%02X-%02X-%02X-%02X-%02X\n",
                ip_text(slot.target_ip).text, MAC_ARGS(slot.target_mac));
        if (slot.replied) {
            LOG_MSG(LOG_LEVEL_INFO, "Receieve arp reply from %02X-%02X-%02X-%02X-%02X-%02X!\n",
                    MAC_ARGS(slot.target_mac));
        } else {
            LOG_MSG(LOG_LEVEL_INFO,
                    "No arp reply from %s|%02X-%02X-%02X-%02X-%02X-%02X! Remove it from arp hash table!\n",
                    ip_text(slot.target_ip).text, MAC_ARGS(slot.target_mac));
            if (arp_detect_handle.arp_table)
                remove_arp_entry(arp_detect_handle.arp_table, slot.target_mac);
        }
        if (slot.ufd.fd > 0)
            close_slot(slot);
    }
    release_arp_detect_handle(&arp_detect_handle);
    return result;
}

int double_check_arp_packet_all_blocked(t_arp_entry **arp_table, uint32_t br_ip,
                                        uint32_t br_netmask, const uint8_t *br_mac, int ifindex)
{
    LOG_MSG(LOG_LEVEL_DEBUG, "Entering function: double_check_arp_packet_all_blocked!\n");
    int rc = start_sweep(__func__, true, arp_table, br_ip, br_netmask, br_mac, ifindex);
    if (rc != 0)
        return rc;

    term_pause_ms(ARP_REPLY_PAUSE_MS);

    uint8_t buf[ARP_RECV_BUF_LEN];
    const ByteView frame(buf, sizeof(buf));
    for (unsigned i = 0; i < arp_detect_handle.arp_num; i++) {
        t_arp_detect &slot = arp_detect_handle.arp_detect_array[i];
        memset(buf, 0, sizeof(buf));
        LOG_MSG(LOG_LEVEL_DEBUG, "Trying to recv Arp packet for: %s|%02X-%02X-%02X-%02X-%02X-%02X\n",
                ip_text(slot.target_ip).text, MAC_ARGS(slot.target_mac));

        // A slot without a socket has nothing to read (descriptor 0 is never ours).
        while (slot.ufd.fd > 0) {
            ssize_t n = recvfrom(slot.ufd.fd, buf, sizeof(buf), MSG_DONTWAIT, nullptr, nullptr);
            if (n <= 0)
                break;
            if (!frame.equals(ARP_OFF_ETH_SRC, slot.target_mac, MAC_LEN)) {
                LOG_MSG(LOG_LEVEL_INFO,
                        "Not match eth header:%02X-%02X-%02X-%02X-%02X-%02X|%02X-%02X-%02X-%02X-%02X-%02X\n",
                        MAC_ARGS(buf + ARP_OFF_ETH_SRC), MAC_ARGS(slot.target_mac));
                continue;
            }
            if (!frame.equals(ARP_OFF_SHA, slot.target_mac, MAC_LEN)) {
                LOG_MSG(LOG_LEVEL_ERROR,
                        "Not match arp packet mac:%02X-%02X-%02X-%02X-%02X-%02X|%02X-%02X-%02X-%02X-%02X-%02X\n",
                        MAC_ARGS(buf + ARP_OFF_SHA), MAC_ARGS(slot.target_mac));
                continue;
            }
            uint32_t sender_ip = 0;
            if (!arp_reply_sender_ip(frame, &sender_ip)) {
                LOG_MSG(LOG_LEVEL_ERROR, "Not a arp reply packet\n");
                continue;
            }
            if (sender_ip != slot.target_ip) {
                LOG_MSG(LOG_LEVEL_INFO, "arp reply receieve a different ip:%s\n",
                        ip_text(sender_ip).text);
                LOG_MSG(LOG_LEVEL_INFO, "arp reply receieve a different ip, orig:%s\n",
                        ip_text(slot.target_ip).text);
                apply_subnet_rule(slot, sender_ip, __func__);
            } else {
                LOG_MSG(LOG_LEVEL_DEBUG, "arp reply success in %s|%02X-%02X-%02X-%02X-%02X-%02X\n",
                        ip_text(sender_ip).text, MAC_ARGS(buf + ARP_OFF_SHA));
            }
            slot.replied = 1;
            close_slot(slot);
        }

        if (!slot.replied) {
            LOG_MSG(LOG_LEVEL_INFO,
                    "No arp reply from %s|%02X-%02X-%02X-%02X-%02X-%02X! Remove it from arp hash table!\n",
                    ip_text(slot.target_ip).text, MAC_ARGS(slot.target_mac));
            remove_arp_entry(arp_table, slot.target_mac);
        }
    }
    release_arp_detect_handle(&arp_detect_handle);
    return 0;
}
