#include "network/netlink_socket.h"

#include <linux/genetlink.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "network/attributes.h"

namespace {

constexpr size_t kFirstBuffer = size_t{32} << 10;
constexpr int kDumpAttempts = 8;
constexpr timeval kPatience = {10, 0};  // the kernel answers at once, or never

// The text of an extended acknowledgement; empty when there is none.
std::string KernelText(const NetlinkMessage& message) {
    if ((message.header.nlmsg_flags & NLM_F_ACK_TLVS) == 0) return {};
    size_t before = sizeof(int);
    if (message.header.nlmsg_type == NLMSG_ERROR) {
        const auto error = HeaderOf<nlmsgerr>(message.payload);
        if (!error) return {};
        before = sizeof(nlmsgerr);
        if ((message.header.nlmsg_flags & NLM_F_CAPPED) == 0) {
            before += std::max<size_t>(error->msg.nlmsg_len, sizeof(nlmsghdr)) - sizeof(nlmsghdr);
        }
    }
    return std::string(
        Attributes(AfterHeader(message.payload, before)).Find(NLMSGERR_ATTR_MSG).Text());
}

template <typename T>
int SetOption(int fd, int level, int option, const T& value) {
    return setsockopt(fd, level, option, &value, sizeof value) == 0 ? 0 : errno;
}

}  // namespace

void ForEachMessage(std::string_view bytes,
                    const std::function<bool(const NetlinkMessage&)>& onMessage) {
    for (;;) {
        const auto header = HeaderOf<nlmsghdr>(bytes);
        if (!header || header->nlmsg_len < sizeof(nlmsghdr) || header->nlmsg_len > bytes.size()) {
            return;
        }
        const auto payload = bytes.substr(sizeof(nlmsghdr), header->nlmsg_len - sizeof(nlmsghdr));
        if (!onMessage({*header, payload})) return;
        bytes = AfterHeader(bytes, header->nlmsg_len);
    }
}

NetlinkRequest::NetlinkRequest(const char* what, uint16_t type, uint16_t flags) : m_what(what) {
    nlmsghdr header{};
    header.nlmsg_type = type;
    header.nlmsg_flags = static_cast<uint16_t>(flags | NLM_F_REQUEST);
    AddHeader(header);
}

void NetlinkRequest::AddBytes(std::string_view bytes) {
    m_bytes += bytes;
    m_bytes.resize(NLMSG_ALIGN(m_bytes.size()));
}

void NetlinkRequest::Add(uint16_t type, std::string_view bytes) {
    const nlattr header = {static_cast<uint16_t>(sizeof header + bytes.size()), type};
    AddHeader(header);
    AddBytes(bytes);
}

void NetlinkRequest::AddNumber(uint16_t type, uint32_t number) {
    Add(type, {reinterpret_cast<const char*>(&number), sizeof number});
}

size_t NetlinkRequest::Begin(uint16_t type) {
    Add(type | NLA_F_NESTED, {});
    return m_bytes.size() - sizeof(nlattr);
}

void NetlinkRequest::End(size_t begin) {
    const auto length = static_cast<uint16_t>(m_bytes.size() - begin);
    std::memcpy(m_bytes.data() + begin, &length, sizeof length);
}

NetlinkRequest FamilyRequest(const char* what, const char* name) {
    NetlinkRequest request(what, GENL_ID_CTRL, 0);
    request.AddHeader(genlmsghdr{CTRL_CMD_GETFAMILY, 1, 0});
    request.Add(CTRL_ATTR_FAMILY_NAME, {name, std::strlen(name) + 1});
    return request;
}

int NetlinkSocket::Open(int protocol) {
    m_fd.Reset(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, protocol));
    if (!m_fd.IsOpen()) return errno;
    sockaddr_nl own{};
    own.nl_family = AF_NETLINK;
    if (bind(m_fd.Get(), reinterpret_cast<sockaddr*>(&own), sizeof own) != 0) return errno;
    // Older kernels lack these: then errors have no text, and repeat the whole request.
    (void)SetOption(m_fd.Get(), SOL_NETLINK, NETLINK_EXT_ACK, 1);
    (void)SetOption(m_fd.Get(), SOL_NETLINK, NETLINK_CAP_ACK, 1);
    m_buffer.resize(kFirstBuffer);
    return SetOption(m_fd.Get(), SOL_SOCKET, SO_RCVTIMEO, kPatience);
}

int NetlinkSocket::Join(uint32_t group) {
    return SetOption(m_fd.Get(), SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, group);
}

void NetlinkSocket::Drain() {
    std::string_view bytes;
    int error = 0;
    do error = Receive(bytes, MSG_DONTWAIT);
    while (error == 0 || error == ENOBUFS);
    m_isAnswering = false;
}

int NetlinkSocket::Send(NetlinkRequest& request) {
    if (m_isAnswering) Drain();
    nlmsghdr header{};
    std::memcpy(&header, request.m_bytes.data(), sizeof header);
    header.nlmsg_len = static_cast<uint32_t>(request.m_bytes.size());
    header.nlmsg_seq = ++m_sequence;
    std::memcpy(request.m_bytes.data(), &header, sizeof header);
    m_kernelText.clear();
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    for (;;) {
        const ssize_t sent = sendto(m_fd.Get(), request.m_bytes.data(), request.m_bytes.size(), 0,
                                    reinterpret_cast<sockaddr*>(&kernel), sizeof kernel);
        const int error = sent < 0 ? errno : 0;
        m_isAnswering = error == 0;
        if (error != EINTR) return error;
    }
}

int NetlinkSocket::Receive(std::string_view& bytes, int flags) {
    for (;;) {
        // Without a buffer: only how long the next datagram is.
        const ssize_t next = m_lengths == Lengths::kAsked
                                 ? recv(m_fd.Get(), nullptr, 0, MSG_PEEK | MSG_TRUNC | flags)
                                 : 0;
        if (next > static_cast<ssize_t>(m_buffer.size())) {
            m_buffer.resize(static_cast<size_t>(next));
        }
        sockaddr_nl from{};
        socklen_t fromSize = sizeof from;
        const ssize_t size =
            next < 0 ? next
                     : recvfrom(m_fd.Get(), m_buffer.data(), m_buffer.size(), MSG_TRUNC | flags,
                                reinterpret_cast<sockaddr*>(&from), &fromSize);
        const int error = size < 0 ? errno : 0;
        if (error == EINTR) continue;
        if (error != 0) return error;
        if (from.nl_pid != 0 && (flags & MSG_PEEK) == 0) continue;  // not from the kernel
        if (static_cast<size_t>(size) > m_buffer.size()) {
            m_buffer.resize(static_cast<size_t>(size));
            return ENOBUFS;
        }
        bytes = {m_buffer.data(), static_cast<size_t>(size)};
        return 0;
    }
}

NetlinkSocket::Progress NetlinkSocket::Take(const NetlinkMessage& message, const Handler& onMessage,
                                            int& error) {
    if (message.header.nlmsg_seq != m_sequence) return Progress::kMore;  // of an older request
    if ((message.header.nlmsg_flags & NLM_F_DUMP_INTR) != 0) m_isConsistent = false;
    const bool isError = message.header.nlmsg_type == NLMSG_ERROR;
    if (isError || message.header.nlmsg_type == NLMSG_DONE) {
        error = isError ? -HeaderOf<int>(message.payload).value_or(-EBADMSG)
                        : -HeaderOf<int>(message.payload).value_or(0);
        m_isAnswering = false;
        m_kernelText = KernelText(message);
        return Progress::kDone;
    }
    if (message.header.nlmsg_type >= NLMSG_MIN_TYPE) onMessage(message);
    return Progress::kMore;
}

int NetlinkSocket::ReadAnswer(NetlinkRequest& request, const Handler& onMessage) {
    int error = Send(request);
    Progress progress = Progress::kMore;
    while (error == 0 && progress == Progress::kMore) {
        std::string_view bytes;
        error = Receive(bytes, 0);
        if (error == EAGAIN) error = ETIMEDOUT;
        if (error != 0) break;
        ForEachMessage(bytes, [&](const NetlinkMessage& message) {
            progress = Take(message, onMessage, error);
            return progress == Progress::kMore;
        });
    }
    if (error != 0) Explain(request.m_what, error);
    return error;
}

int NetlinkSocket::Ask(NetlinkRequest& request, const Handler& onMessage) {
    // Asks for an acknowledgement, so that each answer has an end.
    nlmsghdr header{};
    std::memcpy(&header, request.m_bytes.data(), sizeof header);
    header.nlmsg_flags |= NLM_F_ACK;
    std::memcpy(request.m_bytes.data(), &header, sizeof header);
    m_lengths = Lengths::kAsked;
    return ReadAnswer(request, onMessage);
}

int NetlinkSocket::Dump(NetlinkRequest& request, const std::function<void()>& onBegin,
                        const Handler& onMessage, Lengths lengths) {
    m_lengths = lengths;
    for (int attempt = 1;; ++attempt) {
        m_isConsistent = true;
        onBegin();
        const int error = ReadAnswer(request, onMessage);
        const bool isWhole = error == 0 && m_isConsistent;
        if (isWhole || attempt == kDumpAttempts) return error;
        if (error != 0 && error != ENOBUFS && error != EINTR) return error;
    }
}

void NetlinkSocket::Explain(const char* what, int error) {
    m_errorText = std::string(what) + ": " + std::strerror(error);
    if (!m_kernelText.empty()) m_errorText += " (" + m_kernelText + ")";
}
