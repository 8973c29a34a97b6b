#include "support/dnsmasq.h"

#include <signal.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <utility>
#include <vector>

namespace lptest {

namespace {
std::string slurp(const std::string &path)
{
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}
}  // namespace

Dnsmasq::Dnsmasq(std::string iface, std::string range_lo, std::string range_hi, std::string router,
                 std::string dns, std::string dir)
    : iface_(std::move(iface)), lo_(std::move(range_lo)), hi_(std::move(range_hi)),
      router_(std::move(router)), dns_(std::move(dns)), dir_(std::move(dir))
{
}

bool Dnsmasq::Start()
{
    mkdir(dir_.c_str(), 0700);
    std::vector<std::string> args = {
        "dnsmasq", "--no-daemon", "--conf-file=/dev/null", "--port=0", "--no-ping",
        "--interface=" + iface_, "--bind-interfaces", "--user=root", "--group=root",
        "--dhcp-range=" + lo_ + "," + hi_ + ",255.255.255.0,1h",
        "--dhcp-option=3," + router_, "--dhcp-option=6," + dns_,
        "--dhcp-leasefile=" + dir_ + "/leases", "--pid-file=" + dir_ + "/pid",
        "--log-facility=" + dir_ + "/log", "--log-dhcp"};
    fflush(nullptr);
    pid_ = fork();
    if (pid_ == 0) {
        std::vector<char *> argv;
        for (std::string &a : args)
            argv.push_back(&a[0]);
        argv.push_back(nullptr);
        execvp("dnsmasq", argv.data());
        _exit(127);
    }
    if (pid_ < 0)
        return false;
    // Ready once its DHCP socket is bound (port 67 = 0043 in /proc/net/udp).
    for (int i = 0; i < 100; i++) {
        if (slurp("/proc/net/udp").find(":0043 ") != std::string::npos)
            return true;
        int status;
        if (waitpid(pid_, &status, WNOHANG) == pid_) {
            pid_ = -1;
            return false;
        }
        usleep(50 * 1000);
    }
    return false;
}

Dnsmasq::~Dnsmasq()
{
    if (pid_ > 0) {
        kill(pid_, SIGTERM);
        waitpid(pid_, nullptr, 0);
    }
}

std::string Dnsmasq::Log() const { return slurp(dir_ + "/log"); }

}  // namespace lptest
