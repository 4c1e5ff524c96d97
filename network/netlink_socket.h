// One netlink socket: requests, dumps that are repeated when the kernel was interrupted, errors as
// readable texts. One thread at a time. Throws std::bad_alloc alone.
#pragma once

#include <linux/netlink.h>

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "base/unique_fd.h"

struct NetlinkMessage {
    nlmsghdr header{};
    std::string_view payload;  // after the header
};

// Calls `onMessage` for each whole message of what was received, until it returns false.
void ForEachMessage(std::string_view bytes,
                    const std::function<bool(const NetlinkMessage&)>& onMessage);

// A message under construction.
class NetlinkRequest {
  public:
    // `what` names it in errors: "reading the links".
    NetlinkRequest(const char* what, uint16_t type, uint16_t flags);

    template <typename T>
    void AddHeader(const T& header) {
        AddBytes({reinterpret_cast<const char*>(&header), sizeof header});
    }
    void Add(uint16_t type, std::string_view bytes);
    void AddNumber(uint16_t type, uint32_t number);
    // What is added until `End` is within this attribute.
    [[nodiscard]] size_t Begin(uint16_t type);
    void End(size_t begin);

  private:
    friend class NetlinkSocket;
    void AddBytes(std::string_view bytes);
    const char* m_what;
    std::string m_bytes;
};

// Which number a family of generic netlink has: CTRL_ATTR_FAMILY_ID in the answer.
[[nodiscard]] NetlinkRequest FamilyRequest(const char* what, const char* name);

class NetlinkSocket {
  public:
    using Handler = std::function<void(const NetlinkMessage&)>;
    // Whether the length of each part of an answer is asked for before it is read; or the buffer
    // grows when one does not fit, and the dump begins again: half the calls.
    enum class Lengths { kAsked, kTried };

    // An errno number, as everywhere here.
    [[nodiscard]] int Open(int protocol);
    // Hands over each message of the answer.
    [[nodiscard]] int Ask(NetlinkRequest& request, const Handler& onMessage);
    // A dump. `onBegin` comes before each attempt and forgets what the one before brought. Succeeds
    // also when the last attempt was interrupted; IsConsistent then says so.
    [[nodiscard]] int Dump(NetlinkRequest& request, const std::function<void()>& onBegin,
                           const Handler& onMessage, Lengths lengths = Lengths::kAsked);
    [[nodiscard]] bool IsConsistent() const { return m_isConsistent; }

    [[nodiscard]] int Join(uint32_t group);
    // What is there already of the groups' messages, for as long as `bytes` is used. EAGAIN when
    // there is nothing, ENOBUFS when some were lost.
    [[nodiscard]] int Receive(std::string_view& bytes, int flags);

    [[nodiscard]] int Descriptor() const { return m_fd.Get(); }
    // What the last request that failed was doing, and what the kernel said to it.
    [[nodiscard]] const std::string& ErrorText() const { return m_errorText; }

  private:
    enum class Progress { kMore, kDone };
    [[nodiscard]] int Send(NetlinkRequest& request);
    [[nodiscard]] int ReadAnswer(NetlinkRequest& request, const Handler& onMessage);
    [[nodiscard]] Progress Take(const NetlinkMessage& message, const Handler& onMessage,
                                int& error);
    void Explain(const char* what, int error);
    // The rest of an answer that was not read to its end: the kernel refuses a dump until then.
    void Drain();

    UniqueFd m_fd;
    uint32_t m_sequence = 0;
    std::vector<char> m_buffer;
    bool m_isConsistent = true;
    bool m_isAnswering = false;  // a request was sent, the end of its answer not read
    Lengths m_lengths = Lengths::kAsked;
    std::string m_kernelText;  // of the extended acknowledgement
    std::string m_errorText;
};
