/* A double of wlanapi.dll for the Windows test program only (never beside shipped
   programs): the WLAN service with the interfaces and BSS list a test scripts. */
#include <windows.h>
#include <wlanapi.h>

#include <stddef.h>
#include <string.h>

#define MAX_INTERFACES 8
#define MAX_ENTRIES 64

static WLAN_INTERFACE_INFO interfaces[MAX_INTERFACES];
static WLAN_BSS_ENTRY entries[MAX_ENTRIES];
static DWORD interfaceCount, entryCount, claimedExtra, scanError;
static LONG scans, openHandles, allocations;

/* The next answers: `claimed` items more than there are in a BSS list (a list that
   lies about its length), `scan` the result of WlanScan. */
void WINAPI WlanDoubleScript(const WLAN_INTERFACE_INFO* interfaceList, DWORD interfaces_,
                             const WLAN_BSS_ENTRY* entryList, DWORD entries_, DWORD claimed,
                             DWORD scan) {
    interfaceCount = interfaces_ < MAX_INTERFACES ? interfaces_ : MAX_INTERFACES;
    entryCount = entries_ < MAX_ENTRIES ? entries_ : MAX_ENTRIES;
    memcpy(interfaces, interfaceList, interfaceCount * sizeof *interfaces);
    memcpy(entries, entryList, entryCount * sizeof *entries);
    claimedExtra = claimed;
    scanError = scan;
}

/* Scans asked, client handles open, and service memory not given back. */
void WINAPI WlanDoubleCounters(LONG* scanCount, LONG* handles, LONG* unfreed) {
    *scanCount = scans;
    *handles = openHandles;
    *unfreed = allocations;
}

static void* allocate(size_t size) {
    ++allocations;
    return HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, size);
}

DWORD WINAPI WlanOpenHandle(DWORD version, PVOID reserved, PDWORD negotiated, PHANDLE client) {
    (void)reserved;
    if (version != 1 && version != 2) {
        return ERROR_NOT_SUPPORTED;
    }
    *negotiated = version;
    *client = (HANDLE)(ULONG_PTR)(0x100 + ++openHandles);
    return ERROR_SUCCESS;
}

DWORD WINAPI WlanCloseHandle(HANDLE client, PVOID reserved) {
    (void)reserved;
    if (client == NULL) {
        return ERROR_INVALID_PARAMETER;
    }
    --openHandles;
    return ERROR_SUCCESS;
}

DWORD WINAPI WlanEnumInterfaces(HANDLE client, PVOID reserved, PWLAN_INTERFACE_INFO_LIST* list) {
    (void)reserved;
    if (client == NULL || list == NULL) {
        return ERROR_INVALID_PARAMETER;
    }
    *list = allocate(offsetof(WLAN_INTERFACE_INFO_LIST, InterfaceInfo) +
                     (interfaceCount + 1) * sizeof(WLAN_INTERFACE_INFO));
    (*list)->dwNumberOfItems = interfaceCount;
    memcpy((*list)->InterfaceInfo, interfaces, interfaceCount * sizeof *interfaces);
    return ERROR_SUCCESS;
}

static BOOL known(const GUID* guid) {
    for (DWORD i = 0; i < interfaceCount; ++i) {
        if (IsEqualGUID(guid, &interfaces[i].InterfaceGuid)) {
            return TRUE;
        }
    }
    return FALSE;
}

DWORD WINAPI WlanScan(HANDLE client, const GUID* guid, const PDOT11_SSID ssid,
                      const PWLAN_RAW_DATA elements, PVOID reserved) {
    (void)ssid, (void)elements, (void)reserved;
    if (client == NULL || !known(guid)) {
        return ERROR_INVALID_PARAMETER;
    }
    ++scans;
    return scanError;
}

DWORD WINAPI WlanGetNetworkBssList(HANDLE client, const GUID* guid, const PDOT11_SSID ssid,
                                   DOT11_BSS_TYPE type, BOOL secure, PVOID reserved,
                                   PWLAN_BSS_LIST* list) {
    (void)ssid, (void)secure, (void)reserved;
    if (client == NULL || !known(guid) || list == NULL || type != dot11_BSS_type_any) {
        return ERROR_INVALID_PARAMETER;
    }
    DWORD size = offsetof(WLAN_BSS_LIST, wlanBssEntries) + entryCount * sizeof(WLAN_BSS_ENTRY);
    *list = allocate(size);
    (*list)->dwTotalSize = size;
    (*list)->dwNumberOfItems = entryCount + claimedExtra;
    memcpy((*list)->wlanBssEntries, entries, entryCount * sizeof *entries);
    return ERROR_SUCCESS;
}

VOID WINAPI WlanFreeMemory(PVOID memory) {
    if (memory != NULL) {
        --allocations;
        HeapFree(GetProcessHeap(), 0, memory);
    }
}
