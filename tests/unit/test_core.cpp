// The command line (console text, go or stop, option record, log sink), the
// result document as json-c writes it, and the ordered interface lists.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/result_file.h"
#include "core/startup.h"
#include "registry/device_list.h"
#include "support/log.h"
#include "support/result_codes.h"
#include "support/testkit.h"

namespace {

const std::string kUsage =
    "Usage: lanprobe -d/--debug [0(emergy)~7(debug)] to specify the debug level.\n"
    "\t\t-t/--time_ms [1000~8000] to specify the timeout.\n"
    "\t\t-v/--device [eth*] to specify the device to detect, or will detect in all lan devices in "
    "default\n";
const std::string kHint = "Try: lanprobe --help for more information!\n";
const std::string kTime5000 = "Success set lanprobe timeout to 5000ms!\n";

TEST(CmdOption, Table)
{
    const std::string n31(31, 'n'), quotes = "a'b\"c; $(touch /tmp/y) `id` \\n%s%n";
    const std::string long_v(255 - strlen("echo '' > /dev/console") -
                             strlen("Success specify dhcp detect device: !"), 'e');
    const struct {
        std::vector<std::string> args;
        bool go;
        unsigned level, time_ms;
        std::string device, console;
    } rows[] = {
        {{}, true, 2, 0, "", ""},
        {{"-h"}, false, 2, 0, "", kUsage},
        {{"-h", "-t", "5000"}, true, 2, 5000, "", kUsage + kTime5000},  // the last option decides
        {{"-t", "5000", "-h"}, false, 2, 5000, "", kTime5000 + kUsage},
        {{"-d", "0"}, true, 2, 0, "", "Invalid option -d 0, Run as default critical debug level!\n"},
        {{"-d", "8"}, true, 2, 0, "", "Invalid option -d 8, Run as default critical debug level!\n"},
        {{"-d", "3abc", "--debug", "7"}, true, 7, 0, "",
         "Success set lanprobe debug level to 3abc!\nSuccess set lanprobe debug level to 7!\n"},
        {{"-t", "20000"}, true, 2, 20000, "", "Success set lanprobe timeout to 20000ms!\n"},
        {{"-t", "20001"}, true, 2, 0, "", "Invalid option -t 20001, should in range (0,20000]!\n"},
        {{"-t", "abc"}, true, 2, 0, "", "Invalid option -t 0, should in range (0,20000]!\n"},
        {{"--time_ms= +5000ms", "stray"}, true, 2, 5000, "", kTime5000},
        {{"-v", n31 + "XYZ"}, true, 2, 0, n31, "Success specify dhcp detect device: " + n31 + "XYZ!\n"},
        {{"-v", quotes}, true, 2, 0, quotes.substr(0, 31), "Success specify dhcp detect device: " + quotes + "!\n"},
        {{"-v", long_v}, true, 2, 0, std::string(31, 'e'), "Success specify dhcp detect device: " + long_v + "!\n"},
        {{"-v", long_v + "e"}, true, 2, 0, std::string(31, 'e'), ""},  // its echo command is too long
        {{"-x"}, false, 2, 0, "", kHint},
        {{"-t", "5000", "-d"}, false, 2, 5000, "", kTime5000 + kHint},
    };
    for (const auto &r : rows) {
        std::string what;
        for (const std::string &a : r.args)
            what += "[" + a + "] ";
        tk::in_netns([&] {
            // A valid -d moves descriptors 0-2 onto the log file, which exists here.
            tk::write_file("/tmp/lanprobe.log", "");
            std::vector<char *> argv{const_cast<char *>("lanprobe")};
            for (const std::string &a : r.args)
                argv.push_back(const_cast<char *>(a.c_str()));
            argv.push_back(nullptr);
            t_cmd_option opt{};
            opt.debug_level = LOG_LEVEL_CRITICAL;
            // Each console message opens the console anew, truncating: a pipe keeps them all.
            int con[2];
            ASSERT_EQ(pipe(con), 0);
            std::string console = "/proc/self/fd/" + std::to_string(con[1]);
            struct stat out, log;
            int go = parse_cmd_option_on(console.c_str(), static_cast<int>(argv.size() - 1), argv.data(), &opt);
            bool sink = fstat(1, &out) == 0 && stat("/tmp/lanprobe.log", &log) == 0 && out.st_ino == log.st_ino;
            log_restore_stdio();
            EXPECT_EQ(go != 0, r.go) << what;
            EXPECT_EQ(opt.debug_level, r.level) << what;
            EXPECT_EQ(sink, r.level != 2) << what;
            EXPECT_EQ(opt.time_ms, r.time_ms) << what;
            EXPECT_EQ(opt.device, r.device) << what;
            close(con[1]);
            char text[4096] = {};
            EXPECT_EQ(std::string(text, std::max<ssize_t>(0, read(con[0], text, sizeof(text)))), r.console) << what;
            EXPECT_FALSE(access("/tmp/y", F_OK) == 0) << what;
        });
    }
}

TEST(ResultFile, Documents)
{
    struct Port {
        const char *name, *label, *mac, *ip, *gw, *dns;  // addresses: nullptr for 0
    };
    const struct {
        std::vector<Port> ports;
        const char *doc;
    } rows[] = {
        {{}, R"({"result":[]})"},
        {{{"eth1", "LAN1", "a0 b1 c2 d3 e4 f5", "192.168.1.100", "192.168.1.1", "192.168.1.1"}},
         R"({"result":[{"name":"eth1","label":"LAN1","mac":"A0:B1:C2:D3:E4:F5","pre_assigned_ip":"192.168.1.100","gateway_ip":"192.168.1.1","dns_ip":"192.168.1.1"}]})"},
        {{{"eth9", "", "00 16 3e 0a 0b 0c", "10.1.1.9", nullptr, "10.1.1.53"},
          {"eth0", "P0", "00 00 00 00 00 00", "10.0.0.1", nullptr, nullptr},
          {"eth5", "L \"1/2\"", "00 00 00 00 00 01", nullptr, nullptr, nullptr}},
         R"({"result":[{"name":"eth9","label":"","mac":"00:16:3E:0A:0B:0C","pre_assigned_ip":"10.1.1.9","dns_ip":"10.1.1.53"},{"name":"eth5","label":"L \"1\/2\"","mac":"00:00:00:00:00:01"}]})"},
    };
    const char *path = "/tmp/lanprobe_result_test";
    for (const auto &r : rows) {
        tk::write_file(path, "time 19 and more text than a document has");
        for (const Port &p : r.ports) {
            t_device *dev = create_new_device(p.name);
            strcpy(dev->label, p.label);
            memcpy(dev->offer.mac, tk::hex(p.mac).data(), MAC_LEN);
            dev->offer.pre_assigned_ip = p.ip ? inet_addr(p.ip) : 0;
            dev->offer.gateway_ip = p.gw ? inet_addr(p.gw) : 0;
            dev->offer.dns_ip = p.dns ? inet_addr(p.dns) : 0;
            ASSERT_EQ(add_device(&lan_devices.dev_hashmap_head, dev), 0);
        }
        write_detect_result(path);
        EXPECT_EQ(tk::read_file(path), r.doc);
        if (lan_devices.dev_hashmap_head)
            release_all_device(&lan_devices.dev_hashmap_head);
    }
    unlink(path);
}

TEST(DeviceList, OrderDuplicatesRemoval)
{
    // Records d0..d5; the list is built from them in this order of calls.
    const int orders[] = {3, 1, 2, 2, -1, 5};
    t_device devs[6] = {};
    for (int i = 0; i < 6; i++) {
        snprintf(devs[i].name, sizeof(devs[i].name), "d%d", i);
        devs[i].order = static_cast<int8_t>(orders[i]);
    }
    const struct {
        bool add;
        int dev, rc;
        const char *chain, *log;
    } rows[] = {
        {true, 0, 0, "d0", ""},
        {true, 1, 0, "d1 d0", ""},
        {true, 2, 0, "d1 d2 d0", ""},
        {true, 3, 0, "d1 d2 d3 d0", ""},  // equal orders keep the order of adding
        {true, 4, 0, "d4 d1 d2 d3 d0", ""},
        {true, 2, -97, "d4 d1 d2 d3 d0", "Info: dev:d2 already in list!\n"},
        {false, 2, 0, "d4 d1 d3 d0", "Debug: Success remove dev:d2 from list!\n"},
        {false, 2, -96, "d4 d1 d3 d0", ""},
        {false, 0, 0, "d4 d1 d3", "Debug: Success remove dev:d0 from list!\n"},
    };
    log_set_level(LOG_LEVEL_DEBUG);
    t_device_list head{};
    for (const auto &r : rows) {
        tk::Capture log;
        int rc = r.add ? add_unique_device_inorder_to_list(&head, &devs[r.dev])
                       : remove_unique_device_from_list(&head, &devs[r.dev]);
        std::string text = tk::messages(log.text()), chain;
        EXPECT_EQ(rc, r.rc) << r.chain;
        EXPECT_TRUE(*r.log ? tk::count(text, r.log) == 1 : text.empty()) << text;
        for (t_device_list *prev = &head, *n = head.next; n; prev = n, n = n->next) {
            EXPECT_EQ(n->prev, prev);
            chain += std::string(chain.empty() ? "" : " ") + n->dev->name;
        }
        EXPECT_EQ(chain, r.chain);
    }
    free_device_list(&head);
    EXPECT_EQ(head.next, nullptr);
}

}  // namespace
