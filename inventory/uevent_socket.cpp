#include "inventory/uevent_socket.h"

#include <linux/netlink.h>
#include <sys/socket.h>

#include <cerrno>

int UeventSocket::Open() {
    constexpr int kReceiveBytes = 4 << 20;  // some thousand messages
    m_fd.Reset(KeepHigh(
        socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_KOBJECT_UEVENT)));
    if (!m_fd.IsOpen()) return errno;
    // The first needs rights, the second is limited by the administrator.
    if (setsockopt(m_fd.Get(), SOL_SOCKET, SO_RCVBUFFORCE, &kReceiveBytes, sizeof kReceiveBytes)) {
        (void)setsockopt(m_fd.Get(), SOL_SOCKET, SO_RCVBUF, &kReceiveBytes, sizeof kReceiveBytes);
    }
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_groups = 1;  // the kernel's; 2 is udev's
    const int result =
        bind(m_fd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
    return result == 0 ? 0 : errno;
}

int UeventSocket::Receive(std::optional<Uevent>& event) {
    event.reset();
    sockaddr_nl sender{};
    iovec part = {m_buffer.data(), m_buffer.size()};
    msghdr message{};
    message.msg_name = &sender;
    message.msg_namelen = sizeof sender;
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    const ssize_t length = recvmsg(m_fd.Get(), &message, 0);
    if (length < 0) return errno;
    // Port 0 is the kernel's, no process can have it. The user id of the credentials says less: in
    // a user name space the kernel's is not 0.
    const bool isKernel =
        message.msg_namelen == sizeof sender && sender.nl_pid == 0 && sender.nl_groups != 0;
    if (!isKernel) return 0;
    if ((message.msg_flags & MSG_TRUNC) != 0) return ENOBUFS;
    event = Uevent::FromMessage({m_buffer.data(), static_cast<size_t>(length)});
    return 0;
}
