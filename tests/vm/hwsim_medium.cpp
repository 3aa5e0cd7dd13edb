// A wireless medium for mac80211_hwsim radios, for the test VM: once registered on
// the MAC80211_HWSIM generic-netlink family, every frame any radio sends comes here,
// and this program delivers it to every other radio with the signal chosen for its
// transmitter, on the transmitter's frequency, and reports unicast frames as
// acknowledged.
//
//   zel_vm_hwsim_medium READY_FILE RADIOS [INDEX=SIGNAL_DBM]...
//
// Radio i (wlan<i> when the module made the interfaces) transmits at the given
// signal, -50 dBm when none is given. READY_FILE is created once registered.
#include <netlink/attr.h>
#include <netlink/genl/ctrl.h>
#include <netlink/genl/genl.h>
#include <netlink/msg.h>
#include <netlink/netlink.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>

namespace {

// The family's interface, as the kernel module defines it (not in the uapi headers).
enum : uint8_t { kCmdRegister = 1, kCmdFrame = 2, kCmdTxInfoFrame = 3 };
enum : int {
    kAttrAddrReceiver = 1,
    kAttrAddrTransmitter = 2,
    kAttrFrame = 3,
    kAttrFlags = 4,
    kAttrRxRate = 5,
    kAttrSignal = 6,
    kAttrTxInfo = 7,
    kAttrCookie = 8,
    kAttrFreq = 19,
    kAttrMax = 19,
};
constexpr uint32_t kTxControlNoAck = 1u << 1;
constexpr uint32_t kTxStatusAck = 1u << 2;
constexpr int kDefaultSignal = -50;

struct Medium {
    nl_sock* socket = nullptr;
    int family = 0;
    int radios = 0;
    std::map<int, int> signals;  // radio index -> dBm its frames arrive with
};

// The address the module knows radio `index` by: 42:00:00:ii:ii:00.
std::array<uint8_t, 6> radioAddress(int index) {
    return {0x42, 0, 0, static_cast<uint8_t>(index >> 8), static_cast<uint8_t>(index), 0};
}

int radioIndex(const uint8_t* address) {
    return address[0] == 0x42 ? (address[3] << 8 | address[4]) : -1;
}

nl_msg* newMessage(const Medium& medium, uint8_t command) {
    nl_msg* message = nlmsg_alloc();
    genlmsg_put(message, NL_AUTO_PORT, NL_AUTO_SEQ, medium.family, 0, 0, command, 1);
    return message;
}

void send(const Medium& medium, nl_msg* message) {
    if (nl_send_auto(medium.socket, message) < 0) {
        std::fprintf(stderr, "hwsim medium: send failed\n");
    }
    nlmsg_free(message);
}

void deliver(const Medium& medium, int receiver, nlattr** attributes, int signal, uint32_t rate) {
    nl_msg* message = newMessage(medium, kCmdFrame);
    auto address = radioAddress(receiver);
    nla_put(message, kAttrAddrReceiver, 6, address.data());
    nla_put(message, kAttrFrame, nla_len(attributes[kAttrFrame]), nla_data(attributes[kAttrFrame]));
    nla_put_u32(message, kAttrRxRate, rate);
    nla_put_u32(message, kAttrSignal, static_cast<uint32_t>(signal));
    if (attributes[kAttrFreq]) {
        nla_put_u32(message, kAttrFreq, nla_get_u32(attributes[kAttrFreq]));
    }
    send(medium, message);
}

void reportTransmitted(const Medium& medium, nlattr** attributes, int signal, bool acked) {
    nl_msg* message = newMessage(medium, kCmdTxInfoFrame);
    uint32_t flags = nla_get_u32(attributes[kAttrFlags]) | (acked ? kTxStatusAck : 0);
    nla_put(message, kAttrAddrTransmitter, 6, nla_data(attributes[kAttrAddrTransmitter]));
    nla_put_u32(message, kAttrFlags, flags);
    nla_put_u32(message, kAttrSignal, static_cast<uint32_t>(signal));
    nla_put(message, kAttrTxInfo, nla_len(attributes[kAttrTxInfo]),
            nla_data(attributes[kAttrTxInfo]));
    nla_put_u64(message, kAttrCookie, nla_get_u64(attributes[kAttrCookie]));
    send(medium, message);
}

int onFrame(nl_msg* message, void* argument) {
    const Medium& medium = *static_cast<const Medium*>(argument);
    nlmsghdr* header = nlmsg_hdr(message);
    auto* genl = static_cast<genlmsghdr*>(nlmsg_data(header));
    std::array<nlattr*, kAttrMax + 1> attributes{};
    if (genl->cmd != kCmdFrame ||
        genlmsg_parse(header, 0, attributes.data(), kAttrMax, nullptr) != 0 ||
        !attributes[kAttrAddrTransmitter] || nla_len(attributes[kAttrAddrTransmitter]) < 6 ||
        !attributes[kAttrFrame] || nla_len(attributes[kAttrFrame]) < 10 ||
        !attributes[kAttrFlags] || !attributes[kAttrTxInfo] || !attributes[kAttrCookie]) {
        return NL_SKIP;
    }
    int transmitter =
        radioIndex(static_cast<const uint8_t*>(nla_data(attributes[kAttrAddrTransmitter])));
    auto found = medium.signals.find(transmitter);
    int signal = found == medium.signals.end() ? kDefaultSignal : found->second;
    // The first rate the transmitter tried (struct hwsim_tx_rate: s8 index, u8 count).
    auto rateIndex =
        static_cast<int8_t>(*static_cast<const uint8_t*>(nla_data(attributes[kAttrTxInfo])));
    uint32_t rate = rateIndex < 0 ? 0 : static_cast<uint32_t>(rateIndex);
    for (int receiver = 0; receiver < medium.radios; ++receiver) {
        if (receiver != transmitter) {
            deliver(medium, receiver, attributes.data(), signal, rate);
        }
    }
    // Address 1 of the frame: group-addressed frames are never acknowledged.
    const auto* frame = static_cast<const uint8_t*>(nla_data(attributes[kAttrFrame]));
    bool unicast = (frame[4] & 0x01) == 0;
    bool acked = unicast && !(nla_get_u32(attributes[kAttrFlags]) & kTxControlNoAck);
    reportTransmitted(medium, attributes.data(), signal, acked);
    return NL_OK;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: %s READY_FILE RADIOS [INDEX=SIGNAL_DBM]...\n", argv[0]);
        return 2;
    }
    Medium medium;
    medium.radios = std::atoi(argv[2]);
    for (int i = 3; i < argc; ++i) {
        int index = 0, signal = 0;
        if (std::sscanf(argv[i], "%d=%d", &index, &signal) != 2) {
            std::fprintf(stderr, "hwsim medium: bad radio signal \"%s\"\n", argv[i]);
            return 2;
        }
        medium.signals[index] = signal;
    }
    medium.socket = nl_socket_alloc();
    if (!medium.socket || genl_connect(medium.socket) < 0 ||
        (medium.family = genl_ctrl_resolve(medium.socket, "MAC80211_HWSIM")) < 0) {
        std::fprintf(stderr, "hwsim medium: no MAC80211_HWSIM family\n");
        return 1;
    }
    nl_socket_disable_seq_check(medium.socket);
    nl_socket_disable_auto_ack(medium.socket);
    nl_socket_set_buffer_size(medium.socket, 1 << 21, 1 << 21);
    nl_socket_modify_cb(medium.socket, NL_CB_VALID, NL_CB_CUSTOM, onFrame, &medium);
    send(medium, newMessage(medium, kCmdRegister));
    if (FILE* ready = std::fopen(argv[1], "w")) {
        std::fclose(ready);
    }
    for (;;) {
        // The kernel answers EINVAL for every delivery it drops (a receiver that is
        // down or on another channel): normal for a medium that sends to all radios.
        int error = nl_recvmsgs_default(medium.socket);
        if (error < 0 && error != -NLE_INVAL && error != -NLE_NOMEM && error != -NLE_AGAIN) {
            std::fprintf(stderr, "hwsim medium: receive failed: %s\n", nl_geterror(error));
        }
    }
}
