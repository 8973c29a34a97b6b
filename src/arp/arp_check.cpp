#include "arp/arp_check.h"

#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "arp/arp_packet.h"
#include "support/byte_view.h"
#include "support/if_query.h"
#include "support/log.h"
#include "support/result_codes.h"
#include "support/term_request.h"

namespace {

constexpr const char *kBridgeName = "br-lan";

// A slot without a port (its socket could not be opened, or the chain was
// shorter than dev_num) logs an empty port name.  No interface name can be
// empty, so "dev:" followed by nothing cannot be mistaken for a real port,
// and nothing is made up that a reader could look for.
const char *slot_dev_name(const t_arp_detect &slot)
{
    return slot.dev ? slot.dev->name : "";
}

void empty_list(t_device_list_head *possible_dev_list)
{
    if (!possible_dev_list)
        return;
    free_device_list(&possible_dev_list->list);
    possible_dev_list->dev_num = 0;
}

// Step 12 of check_ip_using_arp_blocked, logged under its name: reads what
// is queued on the slot's socket until it runs dry or a reply for the target
// address turns up.  Frames land in the buffer the caller cleared for this
// slot and are judged over all of it, so bytes that a short frame did not
// bring read as zero (or as what an earlier, longer frame left there).
void read_replies(t_arp_detect &slot, uint8_t (&buf)[ARP_RECV_BUF_LEN], const char *op)
{
    const ByteView frame(buf, sizeof(buf));
    while (slot.ufd.fd > 0) {
        ssize_t n = recvfrom(slot.ufd.fd, buf, sizeof(buf), MSG_DONTWAIT, nullptr, nullptr);
        if (n <= 0)
            return;
        uint32_t sender_ip = 0;
        if (!arp_reply_sender_ip(frame, &sender_ip)) {
            LOG_MSG_AS(op, LOG_LEVEL_ERROR, "Not a arp reply packet\n");
            continue;
        }
        if (sender_ip == slot.target_ip) {
            slot.replied = 1;
            close(slot.ufd.fd);
            slot.ufd.fd = -1;
            return;
        }
        LOG_MSG_AS(op, LOG_LEVEL_INFO, "arp reply receieve a different ip:%s, Ignore!\n",
                   ip_text(sender_ip).text);
        LOG_MSG_AS(op, LOG_LEVEL_INFO, "arp reply receieve a different ip, orig:%s, Ignore!\n",
                   ip_text(slot.target_ip).text);
    }
}

}  // namespace

int check_ip_using_arp_blocked(uint32_t target_ip, const uint8_t *target_mac,
                               t_device_list_head *possible_dev_list, uint32_t br_ip,
                               const uint8_t *br_mac)
{
    LOG_MSG(LOG_LEVEL_DEBUG, "Entering function: check_ip_using_arp_blocked!\n");
    static constexpr uint8_t kNoMac[MAC_LEN] = {};
    if (!target_mac)
        target_mac = kNoMac;
    if (!possible_dev_list || target_ip == 0 || br_ip == 0 || !br_mac) {
        LOG_MSG(LOG_LEVEL_ERROR, "invalid parameters! Send failed!\n");
        return LP_ERR_INVALID;
    }
    if (arp_detect_handle.arp_detect_array) {
        LOG_MSG(LOG_LEVEL_NOTICE, "Last time handle not release, release it before resend!\n");
        release_arp_detect_handle(&arp_detect_handle);
    }

    // An empty list still makes a run (its release reports the empty array),
    // so at least one slot is allocated: calloc(0) may return null, which
    // would read as an allocation failure on some C libraries.
    arp_detect_handle.arp_num = possible_dev_list->dev_num;
    size_t alloc_num = arp_detect_handle.arp_num ? arp_detect_handle.arp_num : 1;
    arp_detect_handle.arp_detect_array =
        static_cast<t_arp_detect *>(calloc(alloc_num, sizeof(t_arp_detect)));
    if (!arp_detect_handle.arp_detect_array) {
        LOG_MSG(LOG_LEVEL_ERROR, "Failed to malloc %d t_arp_detect struct\n",
                arp_detect_handle.arp_num);
        arp_detect_handle.arp_num = 0;
        return LP_ERR_NOMEM;
    }
    arp_detect_handle.br_ip = br_ip;
    memcpy(arp_detect_handle.br_mac, br_mac, MAC_LEN);
    arp_detect_handle.ifindex = 0;

    t_arp_detect *slots = arp_detect_handle.arp_detect_array;
    const unsigned num = arp_detect_handle.arp_num;

    unsigned i = 0;
    for (t_device_list *node = possible_dev_list->list.next; node; node = node->next, i++) {
        if (i >= num) {
            LOG_MSG(LOG_LEVEL_ERROR,
                    "Impssible, will access out of bound! Check count of possible_dev_list!\n");
            break;
        }
        t_arp_detect &slot = slots[i];
        t_device *dev = node->dev;
        if (init_arp_sockfd(&slot, dev, target_mac, target_ip) != 0) {
            LOG_MSG(LOG_LEVEL_ERROR,
                    "Failed to init ARP socket for: %s|%02X-%02X-%02X-%02X-%02X-%02X, bind to dev:%s\n",
                    ip_text(target_ip).text, MAC_ARGS(target_mac), dev ? dev->name : "");
            memset(slot.target_mac, 0, MAC_LEN);
            slot.target_ip = 0;
            continue;
        }
        t_if_hwinfo hw = get_if_index_hwaddr(slot.ufd.fd, dev->name);
        LOG_MSG(LOG_LEVEL_DEBUG, "Get device:%s , index=%d, hw_addr=%02x-%02x-%02x-%02x-%02x-%02x\n",
                dev->name, hw.ifindex, MAC_ARGS(hw.mac));
        memcpy(slot.src_mac, hw.mac, MAC_LEN);
        LOG_MSG(LOG_LEVEL_DEBUG,
                "Arp packet sockfd init success in for: %s|%02X-%02X-%02X-%02X-%02X-%02X, bind to dev:%s\n",
                ip_text(slot.target_ip).text, MAC_ARGS(slot.target_mac), dev->name);
    }

    uint8_t buf[ARP_RECV_BUF_LEN];
    for (int attempt = 1; attempt <= ARP_CHECK_ATTEMPTS; attempt++) {
        for (i = 0; i < num; i++) {
            t_arp_detect &slot = slots[i];
            LOG_MSG(LOG_LEVEL_DEBUG,
                    "Ready to send Arp packet for: %s|%02X-%02X-%02X-%02X-%02X-%02X via dev:%s, retry_times:%d/%d\n",
                    ip_text(slot.target_ip).text, MAC_ARGS(slot.target_mac), slot_dev_name(slot),
                    attempt, ARP_CHECK_ATTEMPTS);
            if (send_arp_unicast_packet_blocked(&slot) != 0) {
                LOG_MSG(LOG_LEVEL_ERROR,
                        "Failed to send ARP socket for: %s|%02X-%02X-%02X-%02X-%02X-%02X via dev:%s\n",
                        ip_text(slot.target_ip).text, MAC_ARGS(slot.target_mac), slot_dev_name(slot));
                memset(slot.target_mac, 0, MAC_LEN);
            } else {
                LOG_MSG(LOG_LEVEL_DEBUG,
                        "Send Arp packet success for: %s|%02X-%02X-%02X-%02X-%02X-%02X via dev:%s\n",
                        ip_text(slot.target_ip).text, MAC_ARGS(slot.target_mac), slot_dev_name(slot));
            }
        }

        // A stop requested from outside cuts the pause short and ends the run.
        term_pause_ms(ARP_REPLY_PAUSE_MS);

        for (i = 0; i < num; i++) {
            t_arp_detect &slot = slots[i];
            memset(buf, 0, sizeof(buf));
            LOG_MSG(LOG_LEVEL_DEBUG,
                    "Trying to recv Arp packet for: %s|%02X-%02X-%02X-%02X-%02X-%02X via dev:%s, retry_times:%d/%d\n",
                    ip_text(slot.target_ip).text, MAC_ARGS(slot.target_mac), slot_dev_name(slot),
                    attempt, ARP_CHECK_ATTEMPTS);
            read_replies(slot, buf, __func__);
        }

        // The first attempt that gets any answer is the last one.
        const t_arp_detect *first_replied = nullptr;
        for (i = 0; i < num && !first_replied; i++)
            if (slots[i].replied)
                first_replied = &slots[i];
        if (first_replied) {
            LOG_MSG(LOG_LEVEL_DEBUG, "arp reply success in dev:%s\n", slot_dev_name(*first_replied));
            break;
        }
    }

    for (i = 0; i < num; i++) {
        t_arp_detect &slot = slots[i];
        if (slot.replied == 1)
            continue;
        LOG_MSG(LOG_LEVEL_DEBUG, "No arp reply from %s|%02X-%02X-%02X-%02X-%02X-%02X via dev:%s! \n",
                ip_text(slot.target_ip).text, MAC_ARGS(slot.target_mac), slot_dev_name(slot));
        if (slot.dev && remove_unique_device_from_list(&possible_dev_list->list, slot.dev) == 0)
            possible_dev_list->dev_num--;
    }

    release_arp_detect_handle(&arp_detect_handle);
    return 0;
}

int find_target_ip_and_device_with_arp(t_device_list_head *possible_dev_list,
                                       const uint32_t *target_ip)
{
    if (target_ip)
        LOG_MSG(LOG_LEVEL_DEBUG, "Entering function: find_target_ip_and_device_with_arp, target_ip=%s!\n",
                ip_text(*target_ip).text);

    uint32_t br_ip = 0;
    uint32_t br_netmask = 0;
    uint8_t br_mac[MAC_LEN] = {};
    if (get_if_ip_netmask_mac(kBridgeName, &br_ip, &br_netmask, br_mac) != 0) {
        LOG_MSG(LOG_LEVEL_ERROR, "Couldn't get br-lan ip, netmask, mac!\n");
        empty_list(possible_dev_list);
        return LP_ERR_QUERY;
    }

    uint32_t target = 0;
    if (target_ip) {
        target = *target_ip;
    } else {
        LOG_MSG(LOG_LEVEL_DEBUG, "Use br-lan ip:%s as arp requesting ip! ARP announcement!\n",
                ip_text(br_ip).text);
        target = br_ip;
    }
    LOG_MSG(LOG_LEVEL_DEBUG, "Success get br-lan ip:%s, mac:%02X-%02X-%02X-%02X-%02X-%02X\n",
            ip_text(br_ip).text, MAC_ARGS(br_mac));

    static constexpr uint8_t kUnknownMac[MAC_LEN] = {};
    if (check_ip_using_arp_blocked(target, kUnknownMac, possible_dev_list, br_ip, br_mac) != 0) {
        LOG_MSG(LOG_LEVEL_ERROR, "Failed to send arp request for each device!\n");
        empty_list(possible_dev_list);
        return LP_ERR_NO_SOCKET;
    }

    if (possible_dev_list->dev_num == 0)
        LOG_MSG(LOG_LEVEL_DEBUG, "Target ip:%s not found with arp in each device!\n",
                ip_text(target).text);
    else if (possible_dev_list->dev_num >= 2)
        LOG_MSG(LOG_LEVEL_WARNING, "Detect %d device own same ip:%s!\n",
                possible_dev_list->dev_num, ip_text(target).text);
    return 0;
}
