#include "switch_library/control_socket.h"

#include <grp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string_view>
#include <vector>

#include "base/file_safety.h"
#include "base/paths.h"
#include "kemd/config.h"
#include "kemd/trace.h"

namespace {

std::string Failure(const char* what, const char* path) {
    const int error = errno;
    return std::string(what) + " " + path + ": " + std::strerror(error);
}

// Of /etc/group or a number: other sources of groups may wait for the network.
std::optional<gid_t> FindGroup(std::string_view name) {
    gid_t number = 0;
    const char* const end = name.data() + name.size();
    const auto [rest, error] = std::from_chars(name.data(), end, number);
    if (error == std::errc() && rest == end) return number;
    const std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen("/etc/group", "re"), std::fclose);
    std::vector<char> buffer(size_t{1} << 20);
    group entry{};
    group* found = nullptr;
    while (file && fgetgrent_r(file.get(), &entry, buffer.data(), buffer.size(), &found) == 0) {
        if (found->gr_name == name) return found->gr_gid;
    }
    return std::nullopt;
}

// The group that may read; nothing when none is configured, or it cannot be relied on.
std::optional<gid_t> ReadersGroup() {
    const PathReport file = WalkPath(kSettingsFile);
    if (file.error == ENOENT) return std::nullopt;
    const std::unique_ptr<KemdConfig, void (*)(KemdConfig*)> config(
        KemdConfigOpen(kSettingsFile, "Control", "switch"), KemdConfigClose);
    std::array<char, 64> name{};
    (void)KemdConfigText(config.get(), "Group", "", name.data(), name.size());
    if (name[0] == '\0') return std::nullopt;
    std::string fault = Unsafe(file);
    const std::optional<gid_t> group = FindGroup(name.data());
    if (fault.empty() && !group) fault = std::string("no group ") + name.data() + " in /etc/group";
    if (fault.empty()) return group;
    KemdMessage("switch", "%s: [Control] Group = %s is not used: %s", kSettingsFile, name.data(),
                fault.c_str());
    return std::nullopt;
}

std::string MakeDirectory() {
    if (mkdir(kControlDirectory, 0755) == 0) {
        if (chmod(kControlDirectory, 0755) == 0) return {};  // whatever the process's mask is
        return Failure("cannot open", kControlDirectory);
    }
    if (errno != EEXIST) return Failure("cannot make", kControlDirectory);
    return Unsafe(WalkPath(kControlDirectory));
}

// What a daemon that crashed left; the lock file sees to it that no other one runs.
std::string RemoveStaleSocket() {
    struct stat status {};
    if (lstat(kControlSocket, &status) != 0) {
        return errno == ENOENT ? "" : Failure("cannot look at", kControlSocket);
    }
    if (!S_ISSOCK(status.st_mode)) return std::string(kControlSocket) + " is no socket";
    return unlink(kControlSocket) == 0 ? "" : Failure("cannot remove", kControlSocket);
}

bool IsMember(int connection, const ucred& peer, gid_t group) {
    if (peer.gid == group) return true;
    std::array<gid_t, 1024> groups{};
    socklen_t size = sizeof groups;
    if (getsockopt(connection, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &size) != 0) return false;
    const auto end = groups.begin() + size / sizeof(gid_t);
    return std::find(groups.begin(), end, group) != end;
}

}  // namespace

std::string ControlSocket::Open() {
    m_readers = ReadersGroup();
    std::string fault = MakeDirectory();
    if (fault.empty()) fault = RemoveStaleSocket();
    if (fault.empty()) fault = Listen();
    if (!fault.empty()) m_socket.Reset();
    return fault;
}

std::string ControlSocket::Listen() {
    constexpr int kWaiting = 64;
    constexpr mode_t kForRoot = 0600;
    m_socket.Reset(KeepHigh(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(static_cast<char*>(address.sun_path), kControlSocket);
    // The mode comes before the name: nobody else can connect in between.
    if (fchmod(m_socket.Get(), kForRoot) != 0 ||
        bind(m_socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        return Failure("cannot make", kControlSocket);
    }
    if (listen(m_socket.Get(), kWaiting) != 0) {
        std::string fault = Failure("cannot listen on", kControlSocket);
        (void)unlink(kControlSocket);
        return fault;
    }
    if (m_readers &&
        (chown(kControlSocket, 0, *m_readers) != 0 || chmod(kControlSocket, 0660) != 0)) {
        KemdMessage("switch", "%s for the group %u", Failure("cannot open", kControlSocket).c_str(),
                    *m_readers);
    }
    return {};
}

void ControlSocket::Close() {
    if (!m_socket.IsOpen()) return;
    (void)unlink(kControlSocket);
    (void)rmdir(kControlDirectory);  // unless something else is in it
    m_socket.Reset();
}

ControlSocket::Right ControlSocket::RightOf(int connection) const {
    ucred peer{};
    socklen_t size = sizeof peer;
    if (getsockopt(connection, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) return Right::kNone;
    if (peer.uid == 0) return Right::kChange;
    return m_readers && IsMember(connection, peer, *m_readers) ? Right::kRead : Right::kNone;
}
