// The result document, compared as the exact text json-c writes.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "core/result_file.h"
#include "registry/device_table.h"
#include "support/log.h"

namespace {

struct Port {
    const char *name;
    const char *label;
    uint8_t mac[MAC_LEN];
    const char *ip, *gw, *dns;  // null for 0
};

class ResultFileTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/lp_result_XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        path_ = dir_ + "/lanprobe_result";
        memset(&lan_devices, 0, sizeof(lan_devices));
    }
    void TearDown() override
    {
        if (lan_devices.dev_hashmap_head)
            release_all_device(&lan_devices.dev_hashmap_head);
        unlink(path_.c_str());
        rmdir(dir_.c_str());
    }

    void Add(const Port &p)
    {
        t_device *dev = create_new_device(p.name);
        ASSERT_NE(dev, nullptr);
        strncpy(dev->label, p.label, sizeof(dev->label));
        memcpy(dev->offer.mac, p.mac, MAC_LEN);
        dev->offer.pre_assigned_ip = p.ip ? inet_addr(p.ip) : 0;
        dev->offer.gateway_ip = p.gw ? inet_addr(p.gw) : 0;
        dev->offer.dns_ip = p.dns ? inet_addr(p.dns) : 0;
        ASSERT_EQ(add_device(&lan_devices.dev_hashmap_head, dev), 0);
    }

    std::string Written()
    {
        write_detect_result(path_.c_str());
        std::ifstream in(path_, std::ios::binary);
        std::stringstream ss;
        ss << in.rdbuf();
        return ss.str();
    }

    std::string dir_, path_;
};

TEST_F(ResultFileTest, Documents)
{
    struct Case {
        const char *what;
        std::vector<Port> ports;
        const char *expected;
    } cases[] = {
        {"empty table", {}, R"({"result":[]})"},
        {"nobody answered",
         {{"eth0", "LAN1", {0}, "10.0.0.5", nullptr, nullptr}, {"eth1", "LAN2", {0}, nullptr, nullptr, nullptr}},
         R"({"result":[]})"},
        {"one full answer",
         {{"eth1", "LAN1", {0xa0, 0xb1, 0xc2, 0xd3, 0xe4, 0xf5}, "192.168.1.100", "192.168.1.1", "192.168.1.1"}},
         R"({"result":[{"name":"eth1","label":"LAN1","mac":"A0:B1:C2:D3:E4:F5","pre_assigned_ip":"192.168.1.100","gateway_ip":"192.168.1.1","dns_ip":"192.168.1.1"}]})"},
        {"no gateway, empty label",
         {{"eth2", "", {0x00, 0x16, 0x3e, 0x0a, 0x0b, 0x0c}, "10.1.1.9", nullptr, "10.1.1.53"}},
         R"({"result":[{"name":"eth2","label":"","mac":"00:16:3E:0A:0B:0C","pre_assigned_ip":"10.1.1.9","dns_ip":"10.1.1.53"}]})"},
        {"only the last MAC byte set, no addresses",
         {{"eth3", "WAN", {0, 0, 0, 0, 0, 1}, nullptr, nullptr, nullptr}},
         R"({"result":[{"name":"eth3","label":"WAN","mac":"00:00:00:00:00:01"}]})"},
        {"label with a quote and a slash",
         {{"eth4", "LAN \"1/2\"", {0x02, 0, 0, 0, 0, 0x10}, "10.0.0.2", "10.0.0.1", nullptr}},
         R"({"result":[{"name":"eth4","label":"LAN \"1\/2\"","mac":"02:00:00:00:00:10","pre_assigned_ip":"10.0.0.2","gateway_ip":"10.0.0.1"}]})"},
        {"table order, servers only",
         {{"eth9", "P9", {0, 0, 0, 0, 0, 9}, "10.0.0.9", nullptr, nullptr},
          {"eth0", "P0", {0}, "10.0.0.1", nullptr, nullptr},
          {"eth5", "P5", {0, 0, 0, 0, 0, 5}, nullptr, nullptr, "10.0.0.53"}},
         R"({"result":[{"name":"eth9","label":"P9","mac":"00:00:00:00:00:09","pre_assigned_ip":"10.0.0.9"},{"name":"eth5","label":"P5","mac":"00:00:00:00:00:05","dns_ip":"10.0.0.53"}]})"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        TearDown();
        SetUp();
        for (const Port &p : c.ports)
            Add(p);
        EXPECT_EQ(Written(), c.expected);
    }
}

TEST_F(ResultFileTest, ReplacesEarlierContent)
{
    {
        std::ofstream out(path_);
        out << "time 19 and a lot more text than the document will have";
    }
    EXPECT_EQ(Written(), R"({"result":[]})");
}

TEST_F(ResultFileTest, UnterminatedLabelStaysInsideItsField)
{
    Add({"eth1", "", {0, 0, 0, 0, 0, 7}, nullptr, nullptr, nullptr});
    t_device *dev = lan_devices.dev_hashmap_head;
    memset(dev->label, 'L', sizeof(dev->label));  // 32 characters, no NUL
    std::string doc = Written();
    EXPECT_NE(doc.find("\"label\":\"" + std::string(32, 'L') + "\","), std::string::npos) << doc;
}

}  // namespace
