// network_bench [KEMDCTL] - what a snapshot of 1,000 interfaces with 1,000 addresses costs
// beside the bare dumps, read and dropped; what `kemdctl network --json` as a whole process costs
// beside ip; what an interface costs in memory; how long a change takes to its callback.
#include <fcntl.h>
#include <linux/if_link.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <malloc.h>
#include <sched.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>

#include "bench/measure.h"
#include "network/view.h"

namespace {

constexpr int kPairs = 500;

bool Ip(const std::string& commands) {
    std::ofstream("/tmp/commands") << commands;
    return std::system("ip -batch /tmp/commands") == 0;
}

bool MakeInterfaces() {
    std::ostringstream commands;
    for (int i = 0; i < kPairs; ++i) {
        commands << "link add a" << i << " type veth peer name b" << i << "\n";
        for (int host = 1; host <= 2; ++host) {
            commands << "addr add 10." << i / 250 << "." << i % 250 << "." << host << "/24 dev a"
                     << i << "\n";
        }
    }
    return unshare(CLONE_NEWNET) == 0 && Ip(commands.str());
}

// Sends the request and reads the answer to its end.
template <typename Header>
void BareDump(int fd, uint16_t type, uint32_t mask = 0) {
    struct {
        nlmsghdr header;
        Header message;
        rtattr attribute;
        uint32_t mask;
    } request{};
    static char buffer[64 << 10];
    request.header.nlmsg_len = mask != 0 ? sizeof request : NLMSG_LENGTH(sizeof(Header));
    request.header.nlmsg_type = type;
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request.attribute = {RTA_LENGTH(sizeof(uint32_t)), IFLA_EXT_MASK};
    request.mask = mask;
    if (send(fd, &request, request.header.nlmsg_len, 0) < 0) std::abort();
    for (;;) {
        const ssize_t size = recv(fd, buffer, sizeof buffer, 0);
        if (size <= 0) std::abort();
        const auto* first = reinterpret_cast<const nlmsghdr*>(buffer);
        if (first->nlmsg_type == NLMSG_DONE) return;
        if (first->nlmsg_type == NLMSG_ERROR) std::abort();
        // The end may be the last of several.
        int left = static_cast<int>(size);
        for (; NLMSG_OK(first, static_cast<unsigned>(left)); first = NLMSG_NEXT(first, left)) {
            if (first->nlmsg_type == NLMSG_DONE) return;
        }
    }
}

void BareDumps(int fd, uint32_t mask) {
    BareDump<ifinfomsg>(fd, RTM_GETLINK, mask);
    BareDump<ifaddrmsg>(fd, RTM_GETADDR);
    BareDump<rtmsg>(fd, RTM_GETROUTE);
}

NetworkView TakeOrAbort(KemdNetwork* network, uint32_t parts) {
    KemdNetworkSnapshot* snapshot = nullptr;
    if (KemdNetworkTake(network, parts, &snapshot) != 0) std::abort();
    return NetworkView(snapshot);
}

// The words of a command, and the file that its output goes to.
void RunOrAbort(std::vector<const char*> words, const char* output) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, output, O_WRONLY | O_CREAT | O_TRUNC,
                                     0600);
    words.push_back(nullptr);
    pid_t child = 0;
    int status = -1;
    const int error = posix_spawn(&child, words[0], &actions, nullptr,
                                  const_cast<char* const*>(words.data()), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0 || waitpid(child, &status, 0) != child || status != 0) std::abort();
}

void MeasureCommands(const char* kemdctl, const char* output) {
    std::vector<Contender> contenders = {
        Make("kemdctl network --json",
             [&](int) {
                 RunOrAbort({kemdctl, "network", "--json"}, output);
             }),
        Make("ip -j addr; ip -j -d link", [&](int) {
            RunOrAbort({"/usr/sbin/ip", "-j", "addr"}, output);
            RunOrAbort({"/usr/sbin/ip", "-j", "-d", "link"}, output);
        })};
    MeasureRounds(contenders, 60, 1);
    Report((std::string("Commands, to ") + output).c_str(), contenders);
}

void MeasureMemory(KemdNetwork* network) {
    const size_t before = mallinfo2().uordblks;
    const NetworkView all = TakeOrAbort(network, KEMD_NETWORK_ALL);
    const size_t count = all.Interfaces().size();
    std::printf("%zu interfaces with all parts: %zu bytes for each\n", count,
                (mallinfo2().uordblks - before) / count);
}

void MeasureWatch() {
    KemdNetworkWatch* opened = nullptr;
    const auto ignore = [](void*, const KemdNetworkChange*) {};
    if (KemdNetworkWatchOpen(&opened, KEMD_NETWORK_HERE, KEMD_NETWORK_ALL, ignore, nullptr) != 0) {
        std::abort();
    }
    const NetworkWatchHandle watch(opened);
    const int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
    std::string error;
    const auto view = NetworkView::Take(0, error);
    const int index = static_cast<int>(*view->ByName("a0").Number(KEMD_NET_INDEX));
    std::vector<Contender> contenders = {Make("up or down, until the callback", [&](int i) {
        struct {
            nlmsghdr header;
            ifinfomsg message;
        } request{};
        request.header = {sizeof request, RTM_NEWLINK, NLM_F_REQUEST, 0, 0};
        request.message.ifi_index = index;
        request.message.ifi_change = 1;
        request.message.ifi_flags = (i & 1) == 0 ? 1 : 0;
        if (send(fd, &request, sizeof request, 0) < 0) std::abort();
        if (KemdNetworkWatchWait(opened, 5000) != 0) std::abort();
    })};
    MeasureRounds(contenders, 20, 2);
    Report("Watch, among 1,000 interfaces", contenders);
    close(fd);
}

}  // namespace

int main(int argc, char** argv) {
    if (!MakeInterfaces()) {
        std::fprintf(stderr, "network_bench: cannot make interfaces: run it as root, with ip\n");
        return 1;
    }
    const int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
    KemdNetwork* opened = nullptr;
    if (KemdNetworkOpen(&opened, KEMD_NETWORK_HERE) != 0) return 1;
    const NetworkHandle network(opened);
    constexpr uint32_t kRtnetlink = KEMD_NETWORK_ADDRESSES | KEMD_NETWORK_ROUTES;
    std::vector<Contender> contenders = {
        Make("bare dumps, dropped", [&](int) { BareDumps(fd, 0); }),
        Make("bare dumps with the snapshot's filter",
             [&](int) { BareDumps(fd, RTEXT_FILTER_VF | RTEXT_FILTER_SKIP_STATS); }),
        Make("snapshot", [&](int) { (void)TakeOrAbort(opened, kRtnetlink); }),
        Make("snapshot with hardware",
             [&](int) { (void)TakeOrAbort(opened, kRtnetlink | KEMD_NETWORK_HARDWARE); }),
        Make("snapshot with all parts", [&](int) { (void)TakeOrAbort(opened, KEMD_NETWORK_ALL); })};
    MeasureRounds(contenders, 15, 5);
    Report("1,000 interfaces, 1,000 addresses", contenders);
    const char* const kemdctl = argc > 1 ? argv[1] : "/build/bin/kemdctl";
    for (const char* output : {"/dev/null", "/tmp/output"}) MeasureCommands(kemdctl, output);
    MeasureMemory(opened);
    MeasureWatch();
    close(fd);
    return 0;
}
