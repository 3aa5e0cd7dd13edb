#include "spi/wifi/nl80211_socket.h"

#include <netlink/genl/ctrl.h>
#include <netlink/genl/genl.h>
#include <netlink/msg.h>
#include <netlink/netlink.h>
#include <poll.h>

#include <cerrno>

namespace ZEL::SPI {
namespace {

// The kernel answers a request at once; a silence this long means it never will.
constexpr int kReplyTimeoutMs = 5000;

struct CallbackDeleter {
    void operator()(nl_cb* callbacks) const { nl_cb_put(callbacks); }
};
using Callbacks = std::unique_ptr<nl_cb, CallbackDeleter>;

// State of one request: done once acknowledged, the dump ended or the kernel
// refused; `error` then holds 0 or the kernel's positive errno (EPERM is 1, so the
// error cannot double as the "still waiting" mark).
struct RequestState {
    bool done = false;
    int error = 0;
    const Nl80211Socket::ReplyHandler* onReply = nullptr;
};

int onValid(nl_msg* message, void* argument) {
    auto* state = static_cast<RequestState*>(argument);
    if (state->onReply && *state->onReply) {
        (*state->onReply)(nlmsg_hdr(message));
    }
    return NL_OK;
}

int onFinish(nl_msg*, void* argument) {
    static_cast<RequestState*>(argument)->done = true;
    return NL_SKIP;
}

int onAck(nl_msg*, void* argument) {
    static_cast<RequestState*>(argument)->done = true;
    return NL_STOP;
}

int onError(sockaddr_nl*, nlmsgerr* error, void* argument) {
    auto* state = static_cast<RequestState*>(argument);
    state->done = true;
    state->error = error->error < 0 ? -error->error : EIO;
    return NL_STOP;
}

int onEventMessage(nl_msg* message, void* argument) {
    auto* handler = static_cast<const Nl80211Socket::ReplyHandler*>(argument);
    (*handler)(nlmsg_hdr(message));
    return NL_OK;
}

}  // namespace

void MessageDeleter::operator()(nl_msg* message) const {
    nlmsg_free(message);
}

std::unique_ptr<Nl80211Socket> Nl80211Socket::connect(int& error, std::string& reason) {
    nl_sock* socket = nl_socket_alloc();
    if (!socket) {
        error = ENOMEM;
        reason = "nl_socket_alloc failed";
        return nullptr;
    }
    int result = genl_connect(socket);
    int family = result < 0 ? result : genl_ctrl_resolve(socket, "nl80211");
    if (family < 0) {
        error = result < 0 ? EIO : ENOENT;
        reason = std::string(result < 0 ? "genl_connect: " : "nl80211 not found: ") +
                 nl_geterror(family);
        nl_socket_free(socket);
        return nullptr;
    }
    return std::unique_ptr<Nl80211Socket>(new Nl80211Socket(socket, family));
}

Nl80211Socket::~Nl80211Socket() {
    nl_socket_free(socket_);
}

Message Nl80211Socket::newMessage(uint8_t command, int flags) const {
    Message message(nlmsg_alloc());
    if (message &&
        !genlmsg_put(message.get(), NL_AUTO_PORT, NL_AUTO_SEQ, family_, 0, flags, command, 0)) {
        message.reset();
    }
    return message;
}

bool Nl80211Socket::waitReadable(int timeoutMs) const {
    pollfd descriptor{nl_socket_get_fd(socket_), POLLIN, 0};
    int ready;
    do {
        ready = poll(&descriptor, 1, timeoutMs);
    } while (ready < 0 && errno == EINTR);
    return ready > 0;
}

int Nl80211Socket::request(const Message& message, const ReplyHandler& onReply) {
    if (!message) {
        return ENOMEM;
    }
    Callbacks callbacks(nl_cb_alloc(NL_CB_DEFAULT));
    if (!callbacks) {
        return ENOMEM;
    }
    RequestState state;
    state.onReply = &onReply;
    nl_cb_set(callbacks.get(), NL_CB_VALID, NL_CB_CUSTOM, onValid, &state);
    nl_cb_set(callbacks.get(), NL_CB_FINISH, NL_CB_CUSTOM, onFinish, &state);
    nl_cb_set(callbacks.get(), NL_CB_ACK, NL_CB_CUSTOM, onAck, &state);
    nl_cb_err(callbacks.get(), NL_CB_CUSTOM, onError, &state);
    if (nl_send_auto(socket_, message.get()) < 0) {
        return EIO;
    }
    while (!state.done) {
        if (!waitReadable(kReplyTimeoutMs)) {
            return ETIMEDOUT;
        }
        if (nl_recvmsgs(socket_, callbacks.get()) < 0 && !state.done) {
            return EIO;
        }
    }
    return state.error;
}

int Nl80211Socket::subscribe(const char* group) {
    int id = genl_ctrl_resolve_grp(socket_, "nl80211", group);
    if (id < 0) {
        return ENOENT;
    }
    nl_socket_disable_seq_check(socket_);
    if (nl_socket_add_membership(socket_, id) < 0 || nl_socket_set_nonblocking(socket_) < 0) {
        return EIO;
    }
    return 0;
}

void Nl80211Socket::readQueuedEvents(const ReplyHandler& onEvent) {
    constexpr int kMaxReads = 256;
    Callbacks callbacks(nl_cb_alloc(NL_CB_DEFAULT));
    if (!callbacks) {
        return;
    }
    nl_cb_set(
        callbacks.get(), NL_CB_SEQ_CHECK, NL_CB_CUSTOM,
        [](nl_msg*, void*) { return static_cast<int>(NL_OK); }, nullptr);
    nl_cb_set(callbacks.get(), NL_CB_VALID, NL_CB_CUSTOM, onEventMessage,
              const_cast<ReplyHandler*>(&onEvent));
    // The socket is non-blocking: each read takes what is queued and returns.
    for (int read = 0; read < kMaxReads && waitReadable(0); ++read) {
        nl_recvmsgs(socket_, callbacks.get());
    }
}

}  // namespace ZEL::SPI
