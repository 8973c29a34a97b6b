#include "arp/arp_packet.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include "arp/arp_sweep.h"
#include "support/if_query.h"
#include "support/log.h"
#include "support/result_codes.h"
#include "support/term_request.h"

t_arp_detect_handle arp_detect_handle;

static constexpr uint8_t kBroadcastMac[MAC_LEN] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff};

bool mac_is_zero(const uint8_t *mac)
{
    static constexpr uint8_t zero[MAC_LEN] = {};
    return memcmp(mac, zero, MAC_LEN) == 0;
}

t_ip_text ip_text(uint32_t ip)
{
    t_ip_text out;
    if (!inet_ntop(AF_INET, &ip, out.text, sizeof(out.text)))
        out.text[0] = '\0';
    return out;
}

void build_arp_request(uint8_t (&frame)[ARP_FRAME_LEN], const uint8_t *eth_dst,
                       const uint8_t *eth_src, uint32_t sender_ip, const uint8_t *target_mac,
                       uint32_t target_ip)
{
    memset(frame, 0, sizeof(frame));
    ByteWriter w(frame, sizeof(frame));
    w.put(ARP_OFF_ETH_DST, eth_dst, MAC_LEN);
    w.put(ARP_OFF_ETH_SRC, eth_src, MAC_LEN);
    w.be16(ARP_OFF_ETH_TYPE, ETH_P_ARP);
    w.be16(ARP_OFF_HTYPE, 1);  // Ethernet
    w.be16(ARP_OFF_PTYPE, ETH_P_IP);
    w.u8(ARP_OFF_HLEN, MAC_LEN);
    w.u8(ARP_OFF_PLEN, 4);
    w.be16(ARP_OFF_OPER, ARP_OP_REQUEST);
    w.put(ARP_OFF_SHA, eth_src, MAC_LEN);
    w.raw32(ARP_OFF_SPA, sender_ip);
    w.put(ARP_OFF_THA, target_mac, MAC_LEN);
    w.raw32(ARP_OFF_TPA, target_ip);
    // Bytes 42..59 stay zero: padding up to the Ethernet minimum.
}

bool arp_reply_sender_ip(ByteView frame, uint32_t *sender_ip)
{
    std::optional<uint16_t> op = frame.be16(ARP_OFF_OPER);
    if (!op || *op != ARP_OP_REPLY)
        return false;
    std::optional<uint32_t> spa = frame.raw32(ARP_OFF_SPA);
    if (!spa)
        return false;
    *sender_ip = *spa;
    return true;
}

int init_arp_sockfd(t_arp_detect *slot, t_device *dev, const uint8_t *target_mac,
                    uint32_t target_ip)
{
    memset(slot, 0, sizeof(*slot));
    slot->ufd.cb = recv_arp_packet;
    if (target_mac)
        memcpy(slot->target_mac, target_mac, MAC_LEN);
    slot->target_ip = target_ip;

    slot->ufd.fd = socket(AF_PACKET, SOCK_RAW, htons(ETH_P_ARP));
    if (slot->ufd.fd < 0) {
        LOG_MSG(LOG_LEVEL_ERROR, "Create ARP socket for %s|%02X-%02X-%02X-%02X-%02X-%02X failed!\n",
                ip_text(slot->target_ip).text, MAC_ARGS(slot->target_mac));
        return LP_ERR_SOCKET;
    }

    if (dev) {
        // Tied to the port by name only: the socket is never bind()-ed, so it
        // still sees ARP frames of every interface.
        LOG_MSG(LOG_LEVEL_DEBUG, "Bind Arp socket into dev:%s\n", dev->name);
        if (bind_socket_to_device(slot->ufd.fd, dev->name) != 0) {
            close(slot->ufd.fd);
            LOG_MSG(LOG_LEVEL_ERROR, "init_arp_sockfd bind to dev:%s fail!\n", dev->name);
            slot->ufd.fd = -1;
            return LP_ERR_BIND_DEVICE;
        }
        slot->dev = dev;
    }
    return 0;
}

int setTimeOut(int fd, unsigned int ms)
{
    int flags = fcntl(fd, F_GETFL);
    if (flags >= 0)
        fcntl(fd, F_SETFL, flags | O_NONBLOCK);

    // The wait also ends when a stop is requested from outside (its pipe
    // becomes readable, or the signal interrupts select): acted on here,
    // before anything is sent.
    int stop_fd = term_request_fd();
    int rc;
    if (fd >= 0 && fd < FD_SETSIZE && stop_fd < FD_SETSIZE) {
        fd_set readfds;
        FD_ZERO(&readfds);
        FD_SET(fd, &readfds);
        if (stop_fd >= 0)
            FD_SET(stop_fd, &readfds);
        struct timeval tv;
        tv.tv_sec = ms / 1000;
        tv.tv_usec = (ms % 1000) * 1000;
        rc = select((fd > stop_fd ? fd : stop_fd) + 1, &readfds, nullptr, nullptr, &tv);
    } else {
        // An fd_set holds descriptors below FD_SETSIZE (1024) only; FD_SET on a
        // higher one writes past the set.  A process with many open descriptors
        // can get one that high, so the same wait is made with poll there.
        struct pollfd pfd[2] = {{fd, POLLIN, 0}, {stop_fd, POLLIN, 0}};
        rc = poll(pfd, 2, static_cast<int>(ms > 0x7fffffffu ? 0x7fffffffu : ms));
    }
    term_act_if_requested();
    if (rc < 0) {
        LOG_MSG(LOG_LEVEL_ERROR, "select error!\n");
        return LP_ERR_QUERY;
    }
    return 0;
}

int send_arp_frame(t_arp_detect *slot, const uint8_t (&frame)[ARP_FRAME_LEN], const char *op)
{
    // Nothing leaves after a stop was requested.
    term_act_if_requested();
    // Out of the slot's port when it has one, else out of the run's interface.
    struct sockaddr_ll to;
    memset(&to, 0, sizeof(to));
    to.sll_family = AF_PACKET;
    to.sll_ifindex = slot->dev ? static_cast<int>(if_nametoindex(slot->dev->name))
                               : arp_detect_handle.ifindex;
    if (sendto(slot->ufd.fd, frame, sizeof(frame), 0, reinterpret_cast<struct sockaddr *>(&to),
               sizeof(to)) < 0) {
        LOG_MSG_AS(op, LOG_LEVEL_ERROR, "Error while sending arp socket to %s|%02X-%02X-%02X-%02X-%02X-%02X\n",
                   ip_text(slot->target_ip).text, MAC_ARGS(slot->target_mac));
        close(slot->ufd.fd);
        slot->ufd.fd = -1;
        return LP_ERR_SEND;
    }
    return 0;
}

int send_arp_unicast_packet_blocked(t_arp_detect *slot)
{
    LOG_MSG(LOG_LEVEL_DEBUG, "Entering function: send_arp_unicast_packet_blocked!\n");
    if (slot->ufd.fd <= 0) {
        LOG_MSG(LOG_LEVEL_ERROR, "Skip sending arp packet due to socket error!\n");
        return LP_ERR_NO_SOCKET;
    }

    // Unknown target hardware address: broadcast in the Ethernet header only,
    // the ARP target hardware address stays zero.
    uint8_t frame[ARP_FRAME_LEN];
    const uint8_t *eth_dst = mac_is_zero(slot->target_mac) ? kBroadcastMac : slot->target_mac;
    build_arp_request(frame, eth_dst, slot->src_mac, arp_detect_handle.br_ip, slot->target_mac,
                      slot->target_ip);

    if (setTimeOut(slot->ufd.fd, ARP_SEND_WAIT_MS) != 0)
        return LP_ERR_SEND;
    return send_arp_frame(slot, frame, __func__);
}

void release_arp_detect_handle(t_arp_detect_handle *handle)
{
    LOG_MSG(LOG_LEVEL_DEBUG, "Entering function: release_arp_detect_handle!\n");
    if (!handle || !handle->arp_detect_array) {
        LOG_MSG(LOG_LEVEL_INFO, "Release null arp_detect_handle fail!\n");
        return;
    }
    if (handle->arp_num == 0)
        LOG_MSG(LOG_LEVEL_ERROR,
                "arp_detect_handle not null but arp_num=0, may cause unclosed socket fd \n");

    for (unsigned i = 0; i < handle->arp_num; i++) {
        t_arp_detect &slot = handle->arp_detect_array[i];
        if (slot.ufd.fd > 0) {
            uloop_fd_delete(&slot.ufd);  // delete before close, also when never added
            close(slot.ufd.fd);
            slot.ufd.fd = -1;
        }
    }
    free(handle->arp_detect_array);
    LOG_MSG(LOG_LEVEL_DEBUG, "release arp_detect_handle success!\n");
    memset(handle, 0, sizeof(*handle));
}
