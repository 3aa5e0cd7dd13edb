// The test VM's wireless medium for mac80211_hwsim radios: it gets every frame any
// radio sends and delivers it to every other radio, on the transmitter's frequency,
// with the signal chosen for the transmitter (-50 dBm by default); unicast frames
// are reported as acknowledged. READY_FILE is created once registered.
//   zel_vm_hwsim_medium READY_FILE RADIOS [INDEX=SIGNAL_DBM]...
#include <netlink/attr.h>
#include <netlink/genl/ctrl.h>
#include <netlink/genl/genl.h>
#include <netlink/msg.h>
#include <netlink/netlink.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <map>

namespace {

// The family's interface, as the kernel module defines it (not in the uapi headers).
enum : uint8_t { kCmdRegister = 1, kCmdFrame = 2, kCmdTxInfoFrame = 3 };
enum : int { kReceiver = 1, kTransmitter, kFrame, kFlags, kRxRate, kSignal, kTxInfo, kCookie };
enum : int { kFreq = 19, kAttrMax = 19 };
constexpr uint32_t kTxControlNoAck = 1u << 1;
constexpr uint32_t kTxStatusAck = 1u << 2;

struct Medium {
    nl_sock* socket = nullptr;
    int family = 0;
    int radios = 0;
    std::map<int, int> signals;  // radio index -> dBm its frames arrive with
};

nl_msg* newMessage(const Medium& medium, uint8_t command) {
    nl_msg* message = nlmsg_alloc();
    genlmsg_put(message, NL_AUTO_PORT, NL_AUTO_SEQ, medium.family, 0, 0, command, 1);
    return message;
}

void send(const Medium& medium, nl_msg* message) {
    nl_send_auto(medium.socket, message);
    nlmsg_free(message);
}

void copy(nl_msg* message, int type, nlattr* attribute) {
    nla_put(message, type, nla_len(attribute), nla_data(attribute));
}

int onFrame(nl_msg* message, void* argument) {
    const Medium& medium = *static_cast<const Medium*>(argument);
    nlmsghdr* header = nlmsg_hdr(message);
    std::array<nlattr*, kAttrMax + 1> a{};
    if (static_cast<genlmsghdr*>(nlmsg_data(header))->cmd != kCmdFrame ||
        genlmsg_parse(header, 0, a.data(), kAttrMax, nullptr) != 0 || !a[kTransmitter] ||
        nla_len(a[kTransmitter]) < 6 || !a[kFrame] || nla_len(a[kFrame]) < 10 || !a[kFlags] ||
        !a[kTxInfo] || !a[kCookie]) {
        return NL_SKIP;
    }
    // The module knows radio i by the address 42:00:00:ii:ii:00.
    const auto* from = static_cast<const uint8_t*>(nla_data(a[kTransmitter]));
    const int transmitter = from[0] == 0x42 ? (from[3] << 8 | from[4]) : -1;
    auto found = medium.signals.find(transmitter);
    const int signal = found == medium.signals.end() ? -50 : found->second;
    // The first rate the transmitter tried (struct hwsim_tx_rate: s8 index, u8 count).
    const auto rate = *static_cast<const int8_t*>(nla_data(a[kTxInfo]));
    for (int receiver = 0; receiver < medium.radios; ++receiver) {
        if (receiver == transmitter) {
            continue;
        }
        nl_msg* frame = newMessage(medium, kCmdFrame);
        const uint8_t address[6] = {
            0x42, 0, 0, static_cast<uint8_t>(receiver >> 8), static_cast<uint8_t>(receiver), 0};
        nla_put(frame, kReceiver, 6, address);
        copy(frame, kFrame, a[kFrame]);
        nla_put_u32(frame, kRxRate, rate < 0 ? 0 : static_cast<uint32_t>(rate));
        nla_put_u32(frame, kSignal, static_cast<uint32_t>(signal));
        if (a[kFreq]) {
            copy(frame, kFreq, a[kFreq]);
        }
        send(medium, frame);
    }
    // Address 1 of the frame: group-addressed frames are never acknowledged.
    const bool unicast = (static_cast<const uint8_t*>(nla_data(a[kFrame]))[4] & 0x01) == 0;
    const uint32_t flags = nla_get_u32(a[kFlags]);
    nl_msg* status = newMessage(medium, kCmdTxInfoFrame);
    copy(status, kTransmitter, a[kTransmitter]);
    nla_put_u32(status, kFlags, flags | (unicast && !(flags & kTxControlNoAck) ? kTxStatusAck : 0));
    nla_put_u32(status, kSignal, static_cast<uint32_t>(signal));
    copy(status, kTxInfo, a[kTxInfo]);
    copy(status, kCookie, a[kCookie]);
    send(medium, status);
    return NL_OK;
}

}  // namespace

int main(int argc, char** argv) {
    Medium medium;
    medium.radios = argc < 3 ? 0 : std::atoi(argv[2]);
    for (int i = 3, index = 0, signal = 0; i < argc; ++i) {
        if (std::sscanf(argv[i], "%d=%d", &index, &signal) != 2) {
            argc = 0;
        }
        medium.signals[index] = signal;
    }
    if (argc < 3) {
        return 2;  // usage: see the top of this file
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
        nl_recvmsgs_default(medium.socket);
    }
}
