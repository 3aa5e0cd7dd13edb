// The NDIS user-mode I/O access device (NDISUIO): its control codes and the
// structures of its query, set and binding requests, written by hand because no
// header of the cross compiler declares them. The 802.11 structures and OIDs come
// from the system's ntddndis.h; the offsets the portable BSSID list reader uses are
// checked against them here.
//
// Two variants of the device exist, and the adapter follows the one its device
// path names:
//  - the handheld system's, opened as "UIO1:": control codes with FILE_ANY_ACCESS;
//    a handle is not bound to an adapter, so each query and set request carries a
//    pointer to the adapter's device name (HandheldOidRequest);
//  - desktop Windows', opened as \\.\NdisUio: control codes requiring read and
//    write access; a handle is bound to one adapter by IOCTL_NDISUIO_OPEN_DEVICE
//    with its device name, and requests carry the OID and the data only
//    (DesktopOidRequest).
// The binding query's request and reply (QueryBinding) are the same in both.
#pragma once

#include <windows.h>
#include <winioctl.h>
// ntddndis.h after windows.h: it relies on its types.
#include <ntddndis.h>

#include <cstddef>
#include <string>

#include "spi/wifi/ndis_bss_list.h"

namespace ZEL::SPI::Ndisuio {

enum class Variant { Handheld, Desktop };

// "UIO1:" and other stream-device names of the handheld system end with a colon.
inline Variant variantFor(const std::wstring& devicePath) {
    return !devicePath.empty() && devicePath.back() == L':' ? Variant::Handheld : Variant::Desktop;
}

struct ControlCodes {
    DWORD openDevice, queryOid, setOid, queryBinding, bindWait;
};

constexpr ControlCodes controlCodes(Variant variant) {
    const DWORD access =
        variant == Variant::Handheld ? FILE_ANY_ACCESS : FILE_READ_ACCESS | FILE_WRITE_ACCESS;
    auto code = [access](DWORD function) {
        return static_cast<DWORD>(CTL_CODE(FILE_DEVICE_NETWORK, function, METHOD_BUFFERED, access));
    };
    return {code(0x200), code(0x201), code(0x205), code(0x203), code(0x204)};
}

static_assert(controlCodes(Variant::Handheld).queryOid == 0x120804);
static_assert(controlCodes(Variant::Handheld).bindWait == 0x120810);
static_assert(controlCodes(Variant::Handheld).setOid == 0x120814);
static_assert(controlCodes(Variant::Desktop).openDevice == 0x12C800);
static_assert(controlCodes(Variant::Desktop).queryOid == 0x12C804);
static_assert(controlCodes(Variant::Desktop).queryBinding == 0x12C80C);

// NDISUIO_QUERY_OID and NDISUIO_SET_OID of the handheld system. The name pointer is
// the handheld's own 32-bit one there; in a 64-bit process it takes 8 bytes.
struct HandheldOidRequest {
    NDIS_OID oid;
    const wchar_t* deviceName;
    UCHAR data[sizeof(ULONG)];
};
static_assert(offsetof(HandheldOidRequest, deviceName) == sizeof(void*));
static_assert(offsetof(HandheldOidRequest, data) == 2 * sizeof(void*));

// NDISUIO_QUERY_OID and NDISUIO_SET_OID of desktop Windows.
struct DesktopOidRequest {
    NDIS_OID oid;
    UCHAR data[sizeof(ULONG)];
};
static_assert(sizeof(DesktopOidRequest) == 8 && offsetof(DesktopOidRequest, data) == 4);

// NDISUIO_QUERY_BINDING: the request names the binding; the reply fills in where
// its device name and description (wide text, not terminated) lie, offsets from the
// start of this structure and lengths in bytes.
struct QueryBinding {
    ULONG bindingIndex;
    ULONG deviceNameOffset;
    ULONG deviceNameLength;
    ULONG deviceDescrOffset;
    ULONG deviceDescrLength;
};
static_assert(sizeof(QueryBinding) == 20 && offsetof(QueryBinding, deviceDescrLength) == 16);

// The portable reader's view of the BSSID list is the system's.
static_assert(offsetof(NDIS_802_11_BSSID_LIST_EX, Bssid) == NdisBss::kItemsOffset);
static_assert(offsetof(NDIS_WLAN_BSSID_EX, MacAddress) == NdisBss::kMacOffset);
static_assert(offsetof(NDIS_WLAN_BSSID_EX, Ssid) + offsetof(NDIS_802_11_SSID, SsidLength) ==
              NdisBss::kSsidLengthOffset);
static_assert(offsetof(NDIS_WLAN_BSSID_EX, Ssid) + offsetof(NDIS_802_11_SSID, Ssid) ==
              NdisBss::kSsidOffset);
static_assert(sizeof(NDIS_802_11_SSID::Ssid) == NdisBss::kSsidCapacity);
static_assert(offsetof(NDIS_WLAN_BSSID_EX, Rssi) == NdisBss::kRssiOffset);
static_assert(offsetof(NDIS_WLAN_BSSID_EX, InfrastructureMode) ==
              NdisBss::kInfrastructureModeOffset);
static_assert(offsetof(NDIS_WLAN_BSSID_EX, InfrastructureMode) +
                  sizeof(NDIS_802_11_NETWORK_INFRASTRUCTURE) ==
              NdisBss::kMinItemLength);
static_assert(Ndis802_11Infrastructure == NdisBss::kInfrastructure);

}  // namespace ZEL::SPI::Ndisuio
