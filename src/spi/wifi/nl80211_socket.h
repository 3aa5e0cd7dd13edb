// One generic-netlink socket talking to the kernel's nl80211 family.
#pragma once

#include <linux/netlink.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

struct nl_msg;
struct nl_sock;

namespace ZEL::SPI {

struct MessageDeleter {
    void operator()(nl_msg* message) const;
};
using Message = std::unique_ptr<nl_msg, MessageDeleter>;

// What the Wi-Fi adapter needs of a socket to nl80211: the real one below, or a
// test's scripted kernel. Errors are positive errno values: the kernel's own answer
// where it gave one, EIO for a failure inside libnl, ETIMEDOUT when the kernel stays
// silent. Not thread-safe; each adapter owns its sockets.
class Nl80211Channel {
  public:
    using ReplyHandler = std::function<void(const nlmsghdr*)>;
    virtual ~Nl80211Channel() = default;

    // A new nl80211 message for `command` with `flags` (NLM_F_DUMP for dumps);
    // null only when memory runs out.
    virtual Message newMessage(uint8_t command, int flags = 0) const = 0;
    // Sends `message` and hands every reply to `onReply` until the kernel
    // acknowledges or ends the dump. Each wait for the kernel is bounded.
    virtual int request(const Message& message, const ReplyHandler& onReply = {}) = 0;
    // Joins the nl80211 multicast group `group` ("scan", ...) and makes the socket
    // non-blocking, for use as an event socket.
    virtual int subscribe(const char* group) = 0;
    // Hands every event already queued to `onEvent`, in order, never waiting for
    // more. A socket that stays readable (a flood of events) is read a bounded
    // number of times; what is left is read by the next call.
    virtual void readQueuedEvents(const ReplyHandler& onEvent) = 0;
};

class Nl80211Socket final : public Nl80211Channel {
  public:
    // Connects and resolves the nl80211 family; null with `error` set when the
    // kernel has no nl80211 (no wireless stack) or netlink is unavailable.
    static std::unique_ptr<Nl80211Socket> connect(int& error, std::string& reason);
    ~Nl80211Socket() override;
    Nl80211Socket(const Nl80211Socket&) = delete;
    Nl80211Socket& operator=(const Nl80211Socket&) = delete;

    Message newMessage(uint8_t command, int flags = 0) const override;
    int request(const Message& message, const ReplyHandler& onReply = {}) override;
    int subscribe(const char* group) override;
    void readQueuedEvents(const ReplyHandler& onEvent) override;

  private:
    Nl80211Socket(nl_sock* socket, int family) : socket_(socket), family_(family) {}
    bool waitReadable(int timeoutMs) const;

    nl_sock* socket_;
    int family_;
};

}  // namespace ZEL::SPI
