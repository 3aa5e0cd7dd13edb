/* The WLAN service as a test scripts it, for the Windows test program only. */
#include <windows.h>
#include <wlanapi.h>

#include <stddef.h>
#include <string.h>

static WLAN_INTERFACE_INFO interfaces[8];
static WLAN_BSS_ENTRY entries[64];
static DWORD interfaceCount, entryCount, claimedExtra;
static LONG openHandles, allocations;

/* The next answers; BSS lists say `claimed` items more than they hold. */
void WINAPI WlanDoubleScript(const WLAN_INTERFACE_INFO* interfaceList, DWORD interfaces_,
                             const WLAN_BSS_ENTRY* entryList, DWORD entries_, DWORD claimed) {
    interfaceCount = min(interfaces_, ARRAYSIZE(interfaces));
    entryCount = min(entries_, ARRAYSIZE(entries));
    memcpy(interfaces, interfaceList, interfaceCount * sizeof *interfaces);
    memcpy(entries, entryList, entryCount * sizeof *entries);
    claimedExtra = claimed;
}

/* Client handles open, and service memory not given back. */
void WINAPI WlanDoubleCounters(LONG* handles, LONG* unfreed) {
    *handles = openHandles, *unfreed = allocations;
}

static void* allocate(size_t size) {
    ++allocations;
    return HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, size);
}

/* Interfaces are told apart by the first field of their GUID, 1 and up. */
#define KNOWN(guid) ((guid)->Data1 >= 1 && (guid)->Data1 <= interfaceCount)

DWORD WINAPI WlanOpenHandle(DWORD version, PVOID reserved, PDWORD negotiated, PHANDLE client) {
    if (version != 2) {
        return ERROR_NOT_SUPPORTED;
    }
    *negotiated = version;
    *client = (HANDLE)(ULONG_PTR)(0x100 + ++openHandles);
    return ERROR_SUCCESS;
}

DWORD WINAPI WlanCloseHandle(HANDLE client, PVOID reserved) {
    --openHandles;
    return ERROR_SUCCESS;
}

DWORD WINAPI WlanEnumInterfaces(HANDLE client, PVOID reserved, PWLAN_INTERFACE_INFO_LIST* list) {
    *list = allocate(sizeof(WLAN_INTERFACE_INFO_LIST) + interfaceCount * sizeof *interfaces);
    (*list)->dwNumberOfItems = interfaceCount;
    memcpy((*list)->InterfaceInfo, interfaces, interfaceCount * sizeof *interfaces);
    return ERROR_SUCCESS;
}

DWORD WINAPI WlanScan(HANDLE client, const GUID* guid, const PDOT11_SSID ssid,
                      const PWLAN_RAW_DATA elements, PVOID reserved) {
    return KNOWN(guid) ? ERROR_SUCCESS : ERROR_INVALID_PARAMETER;
}

DWORD WINAPI WlanGetNetworkBssList(HANDLE client, const GUID* guid, const PDOT11_SSID ssid,
                                   DOT11_BSS_TYPE type, BOOL secure, PVOID reserved,
                                   PWLAN_BSS_LIST* list) {
    if (!KNOWN(guid) || type != dot11_BSS_type_any) {
        return ERROR_INVALID_PARAMETER;
    }
    DWORD size = offsetof(WLAN_BSS_LIST, wlanBssEntries) + entryCount * sizeof *entries;
    *list = allocate(size);
    (*list)->dwTotalSize = size;
    (*list)->dwNumberOfItems = entryCount + claimedExtra;
    memcpy((*list)->wlanBssEntries, entries, entryCount * sizeof *entries);
    return ERROR_SUCCESS;
}

VOID WINAPI WlanFreeMemory(PVOID memory) {
    --allocations;
    HeapFree(GetProcessHeap(), 0, memory);
}
