// Interface table and ARP-entry table: keys, order, result codes and messages.
#include <gtest/gtest.h>

#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "registry/device_table.h"
#include "support/log.h"

namespace {

class DeviceTableTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        log_set_level(LOG_LEVEL_DEBUG);
        head_ = nullptr;
    }
    void TearDown() override
    {
        if (head_)
            release_all_device(&head_);
        while (arp_) {
            t_arp_entry *e = arp_;
            HASH_DEL(arp_, e);
            free(e);
        }
        log_set_level(LOG_LEVEL_ERROR);
    }

    // Runs fn with stdout captured and returns what the log wrote.
    template <typename F>
    std::string Logged(F fn)
    {
        fflush(stdout);
        ::testing::internal::CaptureStdout();
        fn();
        fflush(stdout);
        return ::testing::internal::GetCapturedStdout();
    }

    std::vector<std::string> Names()
    {
        std::vector<std::string> out;
        for (t_device *d = head_; d; d = static_cast<t_device *>(d->hh.next))
            out.emplace_back(d->name);
        return out;
    }

    void AddArp(uint32_t ip, const uint8_t (&mac)[MAC_LEN])
    {
        auto *e = static_cast<t_arp_entry *>(calloc(1, sizeof(t_arp_entry)));
        ASSERT_NE(e, nullptr);
        e->ip = ip;
        memcpy(e->mac, mac, MAC_LEN);
        HASH_ADD(hh, arp_, mac, MAC_LEN, e);
    }

    t_device *head_ = nullptr;
    t_arp_entry *arp_ = nullptr;
};

int CountOf(const std::string &hay, const std::string &needle)
{
    int n = 0;
    for (size_t pos = hay.find(needle); pos != std::string::npos; pos = hay.find(needle, pos + 1))
        n++;
    return n;
}

TEST_F(DeviceTableTest, FreshRecordDefaults)
{
    t_device *dev = create_new_device("eth0");
    ASSERT_NE(dev, nullptr);
    EXPECT_EQ(dev->port, -1);
    EXPECT_EQ(dev->order, -1);
    EXPECT_STREQ(dev->name, "eth0");
    EXPECT_FALSE(device_has_server(dev));
    free(dev);

    std::string log = Logged([] { EXPECT_EQ(create_new_device(nullptr), nullptr); });
    EXPECT_NE(log.find("[lanprobe][Error]["), std::string::npos);
    EXPECT_NE(log.find("]: Null device name pointer!\n"), std::string::npos);
}

// A name longer than the field is known by the 31 characters it kept.
TEST_F(DeviceTableTest, LongNameIsCut)
{
    t_device *dev = create_new_device(std::string(40, 'b').c_str());
    ASSERT_NE(dev, nullptr);
    EXPECT_EQ(strlen(dev->name), 31u);
    ASSERT_EQ(add_device(&head_, dev), 0);
    EXPECT_EQ(find_device(head_, std::string(31, 'b').c_str()), dev);
}

TEST_F(DeviceTableTest, InsertionOrderAndExactLookup)
{
    std::string log = Logged([&] {
        for (const char *n : {"eth0", "eth1", "eth2"})
            ASSERT_EQ(add_device(&head_, create_new_device(n)), 0);
    });
    // Only the first addition meets an empty table.
    EXPECT_EQ(CountOf(log, "[lanprobe][Info]["), 1);
    EXPECT_EQ(CountOf(log, "]: dev_hashmap_head input is NULL!\n"), 1);
    EXPECT_EQ(Names(), (std::vector<std::string>{"eth0", "eth1", "eth2"}));
    t_device *second = static_cast<t_device *>(head_->hh.next);
    EXPECT_EQ(find_device(head_, "eth1"), second);
    EXPECT_EQ(find_device(head_, "ETH1"), nullptr);
    EXPECT_EQ(find_device(head_, "eth10"), nullptr);
    EXPECT_EQ(check_dev_already_add(head_, "eth2"), 1);
    EXPECT_EQ(check_dev_already_add(head_, "Eth2"), 0);
    EXPECT_EQ(HASH_COUNT(head_), 3u);
}

TEST_F(DeviceTableTest, AddDeviceRefusals)
{
    ASSERT_EQ(add_device(&head_, create_new_device("eth0")), 0);

    t_device *dup = create_new_device("eth0");
    t_device *empty = create_new_device("");
    struct Case {
        t_device **head;
        t_device *dev;
        int rc;
        const char *msg;
    } cases[] = {
        {nullptr, dup, -99, "]: Invalid dev_hashmap_head input!\n"},
        {&head_, nullptr, -99, "]: Invalid device input!\n"},
        {&head_, empty, -99, "]: Invalid dev_name!\n"},
        {&head_, dup, -97, "]: Device already existed!\n"},
    };
    for (const Case &c : cases) {
        int rc = 0;
        std::string log = Logged([&] { rc = add_device(c.head, c.dev); });
        EXPECT_EQ(rc, c.rc) << c.msg;
        EXPECT_EQ(log.rfind("[lanprobe][Error][", 0), 0u) << log;
        EXPECT_NE(log.find(c.msg), std::string::npos) << log;
    }
    EXPECT_EQ(Names(), (std::vector<std::string>{"eth0"}));
    EXPECT_NE(find_device(head_, "eth0"), dup);
    free(dup);
    free(empty);
}

TEST_F(DeviceTableTest, AddBrDevice)
{
    std::string log = Logged([&] { EXPECT_EQ(add_br_device("eth1", 3, 2, &head_), 0); });
    EXPECT_NE(log.find("[lanprobe][Debug]["), std::string::npos);
    EXPECT_NE(log.find("]: Parse lan devices name: eth1\n"), std::string::npos);
    t_device *dev = find_device(head_, "eth1");
    ASSERT_NE(dev, nullptr);
    EXPECT_EQ(dev->port_no, 3);
    EXPECT_EQ(dev->order, 2);
    EXPECT_EQ(dev->port, -1);

    log = Logged([&] { EXPECT_EQ(add_br_device("eth1", 4, 5, &head_), -97); });
    size_t exists = log.find("]: Device already existed!\n");
    size_t failed = log.find("]: Add new device failed(-97)!\n");
    ASSERT_NE(exists, std::string::npos) << log;
    ASSERT_NE(failed, std::string::npos) << log;
    EXPECT_LT(exists, failed);
    EXPECT_EQ(log.find("Parse lan devices name"), std::string::npos);
    EXPECT_EQ(Names(), (std::vector<std::string>{"eth1"}));
    EXPECT_EQ(dev->port_no, 3);

    // -1 (bridge could not tell) and the low 8 bits of larger numbers, as signed.
    EXPECT_EQ(add_br_device("eth2", -1, 300, &head_), 0);
    EXPECT_EQ(find_device(head_, "eth2")->port_no, -1);
    EXPECT_EQ(find_device(head_, "eth2")->order, 44);

}

TEST_F(DeviceTableTest, HasServerLooksAtMacOnly)
{
    t_device *dev = create_new_device("eth0");
    ASSERT_NE(dev, nullptr);
    dev->offer.pre_assigned_ip = 0x0100a8c0;
    dev->offer.gateway_ip = 0x0100a8c0;
    EXPECT_FALSE(device_has_server(dev));
    dev->offer.mac[MAC_LEN - 1] = 0x01;
    EXPECT_TRUE(device_has_server(dev));
    EXPECT_FALSE(device_has_server(nullptr));
    free(dev);
}

TEST_F(DeviceTableTest, ArpEntries)
{
    const uint8_t a[MAC_LEN] = {0x00, 0x11, 0x22, 0xaa, 0xbb, 0xcc};
    const uint8_t b[MAC_LEN] = {0x00, 0x11, 0x22, 0xaa, 0xbb, 0xcd};
    const uint8_t c[MAC_LEN] = {0x02, 0x00, 0x00, 0x00, 0x00, 0x01};

    EXPECT_EQ(get_arp_entry_count(arp_), 0u);
    std::string log = Logged([&] { EXPECT_EQ(find_arp_entry(arp_, a), nullptr); });
    EXPECT_NE(log.find("[lanprobe][Info]["), std::string::npos);
    EXPECT_NE(log.find("]: arp_table_hashmap_head input is NULL!\n"), std::string::npos);
    EXPECT_EQ(remove_arp_entry(nullptr, a), -99);

    AddArp(0x0a00a8c0, a);
    AddArp(0x0b00a8c0, c);
    EXPECT_EQ(get_arp_entry_count(arp_), 2u);
    ASSERT_NE(find_arp_entry(arp_, a), nullptr);
    EXPECT_EQ(find_arp_entry(arp_, a)->ip, 0x0a00a8c0u);
    EXPECT_EQ(find_arp_entry(arp_, b), nullptr);


    log = Logged([&] { EXPECT_EQ(remove_arp_entry(&arp_, b), -96); });
    EXPECT_NE(log.find("[lanprobe][Error]["), std::string::npos);
    EXPECT_NE(log.find("]: Arp entry:00-11-22-AA-BB-CD doesn't existed!\n"), std::string::npos) << log;
    EXPECT_EQ(get_arp_entry_count(arp_), 2u);

    // Removing the head moves it to the next entry; removing the last empties it.
    EXPECT_EQ(remove_arp_entry(&arp_, a), 0);
    ASSERT_NE(arp_, nullptr);
    EXPECT_EQ(memcmp(arp_->mac, c, MAC_LEN), 0);
    EXPECT_EQ(get_arp_entry_count(arp_), 1u);
    EXPECT_EQ(remove_arp_entry(&arp_, c), 0);
    EXPECT_EQ(arp_, nullptr);
    EXPECT_EQ(get_arp_entry_count(arp_), 0u);
}

}  // namespace
