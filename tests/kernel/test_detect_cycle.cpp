// The detection cycle on the real kernel: br-lan with veth ports in a private
// network namespace, a real dnsmasq behind one port, and the three timers
// driven by our uloop.  Every run ends the way the daemon ends, through its own
// SIGTERM, so each one runs in a forked child and is judged from outside: its
// exit status, its log (standard output) and the result file it leaves.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <string>

extern "C" {
#include <libubox/uloop.h>
}

#include "core/detect_cycle.h"
#include "core/startup.h"
#include "dhcp/dhcp_packet.h"
#include "dhcp/dhcp_sweep.h"
#include "registry/device_table.h"
#include "support/dnsmasq.h"
#include "support/log.h"
#include "support/lan.h"
#include "support/netns.h"

namespace {

using lptest::count_of;
using lptest::pos_of;
using lptest::sh;

const char kPlaceholder[] = "time 19";

std::string slurp(const char *path)
{
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

// br-lan 192.168.1.1/24 with ports eth0..eth2 (peers p0..p2 outside the
// bridge), their switch labels, and the network list.
void MakeLan()
{
    ASSERT_TRUE(lptest::make_lan(3, "192.168.1.1/24", 0));
    ASSERT_TRUE(lptest::write_config("network", "config interface 'lan'\n\toption ifname 'eth0 eth1 eth2'\n"));
    ASSERT_TRUE(lptest::write_config(
        "switch", "config switch_port\n\toption port '1'\n\toption ifname 'eth0'\n\toption label 'LAN1'\n"
                  "config switch_port\n\toption port '2'\n\toption ifname 'eth1'\n\toption label 'LAN2'\n"
                  "config switch_port\n\toption port '3'\n\toption ifname 'eth2'\n\toption label 'LAN3'\n"));
}

// The bridge selects only ports behind which it has learned a host; a static
// entry stands for a host that has talked.  This one is dnsmasq's, on p0.
void ServerBehindEth0(std::unique_ptr<lptest::Dnsmasq> &server)
{
    ASSERT_TRUE(lptest::learn_host("eth0", lptest::mac_of("p0")));
    ASSERT_TRUE(sh("ip addr add 10.66.0.1/24 dev p0"));
    server.reset(new lptest::Dnsmasq("p0", "10.66.0.100", "10.66.0.150", "10.66.0.254", "10.66.0.53",
                                     "/tmp/dnsmasq-eth0"));
    ASSERT_TRUE(server->Start());
}

struct Outcome {
    int status = -1;
    std::string log;
    std::string result;
};

// Runs the daemon's child side (what main does after the fork) in a forked
// process: level 7 logging to standard output, the given time-out and -v name.
// before_run runs between the set-up and uloop_run.
Outcome RunDetection(uint32_t time_ms, const char *device,
                     const std::function<void()> &before_run = nullptr)
{
    init_result_file(LANPROBE_RESULT_FILE);
    lptest::ChildRun run = lptest::run_child([&] {
        memset(&lan_devices, 0, sizeof(lan_devices));
        memset(&cmd_option, 0, sizeof(cmd_option));
        cmd_option.debug_level = LOG_LEVEL_DEBUG;
        cmd_option.time_ms = time_ms;
        snprintf(cmd_option.device, sizeof(cmd_option.device), "%s", device ? device : "");
        log_set_level(LOG_LEVEL_DEBUG);
        init_signal();
        srand(static_cast<unsigned>(time(nullptr)));
        uloop_init();
        init_detect_cycle();
        if (before_run)
            before_run();
        uloop_run();
        release_all_resource();
        return 0;
    });
    return {run.status, run.out, slurp(LANPROBE_RESULT_FILE)};
}

// Every end goes through the SIGTERM handler, whose line is the last one.
void ExpectEndedBySigterm(const Outcome &o)
{
    EXPECT_EQ(o.status, 0);
    std::string tail = o.log.substr(o.log.rfind("[lanprobe][", o.log.size() - 2));
    EXPECT_NE(tail.find("receive signal:15, exit"), std::string::npos) << tail;
}

TEST(DetectCycle, AllAnsweredEndsAtFirstPoll)
{
    lptest::run_in_netns([] {
        MakeLan();
        std::unique_ptr<lptest::Dnsmasq> server;
        ServerBehindEth0(server);

        Outcome o = RunDetection(0, nullptr);
        ExpectEndedBySigterm(o);
        EXPECT_EQ(count_of(o.log, "Entering function: uloop_proto_detect_start!"), 1u);
        // Only eth0 has a host behind it; the other ports are skipped.
        EXPECT_EQ(count_of(o.log, "Ready to send DHCP Discovery packet via dev:"), 1u);
        EXPECT_EQ(count_of(o.log, "device:eth1 has NO device connected in, skip it!"), 1u);
        // Answered before the first poll: one poll, code 97, result, end.
        EXPECT_EQ(count_of(o.log, "Entering function: uloop_proto_detect_end!"), 1u) << o.log;
        size_t all = pos_of(o.log, "dhcp discovery packet all received offer");
        size_t over = pos_of(o.log, "Detection over beause all devices have dhcp server!");
        ASSERT_NE(all, std::string::npos);
        EXPECT_LT(all, over);
        EXPECT_EQ(count_of(o.log, "dhcp discovery packet timeout!"), 0u);

        std::string mac = lptest::mac_of("p0");
        for (auto &c : mac)
            c = static_cast<char>(toupper(c));
        EXPECT_EQ(o.result.find("{\"result\":[{\"name\":\"eth0\",\"label\":\"LAN1\",\"mac\":\"" + mac +
                                "\",\"pre_assigned_ip\":\"10.66.0."),
                  0u)
            << o.result;
        EXPECT_NE(o.result.find("\"gateway_ip\":\"10.66.0.254\",\"dns_ip\":\"10.66.0.53\"}]}"),
                  std::string::npos)
            << o.result;
    });
}

TEST(DetectCycle, NothingToProbeWritesEmptyResultAtOnce)
{
    lptest::run_in_netns([] {
        MakeLan();
        // No host learned anywhere, and -v names a port that is not in the table.
        Outcome o = RunDetection(0, "eth9");
        ExpectEndedBySigterm(o);
        EXPECT_EQ(count_of(o.log, "Device:eth9 doesn't existed in network.lan! Detect in all lans in default!\n"),
                  1u);
        // All ports go through the ARP check, none through a DISCOVER.
        EXPECT_EQ(count_of(o.log, "Overall 3 devices ready to sending arp!"), 1u);
        EXPECT_EQ(count_of(o.log, "No actual device need detected, skip dhcp detect!"), 1u);
        EXPECT_EQ(count_of(o.log, "dhcp detect array is null, no packet sent yet, treat as detect over!"), 1u);
        EXPECT_LT(pos_of(o.log, "dhcp discovery packet all received offer"),
                  pos_of(o.log, "Detection over beause all devices have dhcp server!"));
        EXPECT_EQ(o.result, "{\"result\":[]}");
    });
}

TEST(DetectCycle, SilentPortTimesOutIntoPassesUntilTheDeadline)
{
    lptest::run_in_netns([] {
        MakeLan();
        ASSERT_TRUE(lptest::learn_host("eth1", "02:00:00:00:0b:01"));  // a host that never answers
        std::unique_ptr<lptest::Dnsmasq> server;
        ServerBehindEth0(server);

        Outcome o = RunDetection(1000, nullptr);
        ExpectEndedBySigterm(o);
        // Pass 1 probes both ports; eth0 answers, eth1 times out, and every
        // later pass probes eth1 alone until the deadline.
        size_t passes = count_of(o.log, "Entering function: uloop_proto_detect_start!");
        EXPECT_GE(passes, 3u) << o.log;
        EXPECT_EQ(count_of(o.log, "Ready to send DHCP Discovery packet via dev:eth0"), 1u);
        EXPECT_EQ(count_of(o.log, "Ready to send DHCP Discovery packet via dev:eth1"), passes);
        EXPECT_EQ(count_of(o.log, "device:eth0 already has dhcp_dever, skip sending arp!"), passes - 1);
        EXPECT_EQ(count_of(o.log, "device:eth0 already has dhcp_dever, skip it!"), passes - 1);
        // Each timed-out poll starts the next pass; the deadline ends the last one.
        EXPECT_GE(count_of(o.log, "dhcp discovery packet timeout!"), passes - 1);
        size_t over = pos_of(o.log, "Detection over!\n");
        ASSERT_NE(over, std::string::npos);
        EXPECT_EQ(count_of(o.log, "Detection over beause"), 0u);
        EXPECT_EQ(o.result.find("{\"result\":[{\"name\":\"eth0\""), 0u) << o.result;
        EXPECT_EQ(o.result.find("eth1"), std::string::npos);
    });
}

TEST(DetectCycle, RefusedNamedPortEndsWithoutResult)
{
    lptest::run_in_netns([] {
        MakeLan();
        Outcome o = RunDetection(0, "eth1", [] {
            // eth1 already carries a server's findings when the first pass starts.
            t_device *eth1 = find_device(lan_devices.dev_hashmap_head, "eth1");
            if (eth1)
                eth1->offer.mac[5] = 1;
        });
        ExpectEndedBySigterm(o);
        // The named port goes through the ARP check whatever it has found...
        EXPECT_EQ(count_of(o.log, "Overall 1 devices ready to sending arp!"), 1u);
        // ...then the probe refuses it: the Warning has no newline of its own.
        EXPECT_NE(o.log.find("device:eth1 already has dhcp_dever, skip it, shouldn't get here as specify "
                             "device, should get suicide![lanprobe][Error]"),
                  std::string::npos)
            << o.log;
        EXPECT_EQ(count_of(o.log, "Error sending dhcp discovery packet via dev:eth1\n"), 1u);
        EXPECT_EQ(count_of(o.log, "Entering function: uloop_proto_detect_end!"), 0u);
        EXPECT_EQ(o.result, kPlaceholder);
    });
}

// The poll callback's decisions, without the network: the run record is set
// up by hand so that the sweep's judge answers what each case needs.
class PollCallback : public ::testing::Test {
protected:
    void SetUp() override
    {
        memset(&proto_detect_ctx, 0, sizeof(proto_detect_ctx));
        proto_detect_ctx.start_timer.cb = uloop_proto_detect_start;
        proto_detect_ctx.poll_timer.cb = uloop_proto_detect_end;
        proto_detect_ctx.timeout_ms = 6000;
        log_set_level(0);
    }
    void TearDown() override
    {
        uloop_timeout_cancel(&proto_detect_ctx.start_timer);
        uloop_timeout_cancel(&proto_detect_ctx.poll_timer);
        release_lanprobe_handle(&lanprobe_handle);
    }
    // One probe context without a port or socket, answered or not; or an
    // array whose count says 0 when contexts < 0.
    void StartRun(int contexts, bool offered)
    {
        size_t n = contexts > 0 ? contexts : 1;
        lanprobe_handle.lanprobe_array = static_cast<lanprobe_ctx *>(calloc(n, sizeof(lanprobe_ctx)));
        lanprobe_handle.device_num = static_cast<uint8_t>(contexts > 0 ? contexts : 0);
        for (size_t i = 0; i < n; i++)
            lanprobe_handle.lanprobe_array[i].offered = offered ? 1 : 0;
    }
};

TEST_F(PollCallback, ActsOnTheJudgesCode)
{
    struct Case {
        const char *what;
        int contexts;
        bool offered;
        uint32_t elapsed_before;
        bool start_armed;   // a new pass begins
        bool poll_armed;    // keeps polling
        uint32_t elapsed_after;
    } const cases[] = {
        {"still waiting", 1, false, 0, false, true, 200},
        // 5800 + 200 = 6000 is not more than 6000: still waiting.
        {"not yet timed out at equality", 1, false, 5800, false, true, 6000},
        {"timed out (96) starts a new pass", 1, false, 6000, true, false, 0},
        {"negative code starts a new pass", -1, false, 400, true, false, 0},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        StartRun(c.contexts, c.offered);
        proto_detect_ctx.elapsed_ms = c.elapsed_before;
        uloop_proto_detect_end(&proto_detect_ctx.poll_timer);
        EXPECT_EQ(proto_detect_ctx.start_timer.pending, c.start_armed);
        EXPECT_EQ(proto_detect_ctx.poll_timer.pending, c.poll_armed);
        EXPECT_EQ(proto_detect_ctx.elapsed_ms, c.elapsed_after);
        // A concluded pass has released its run; a waiting one still holds it.
        EXPECT_EQ(lanprobe_handle.lanprobe_array != nullptr, c.poll_armed);
        TearDown();
        SetUp();
    }
}

}  // namespace
