/* The WLAN service as a script says, for the test programs only. The script is the
   file named by ZEL_TEST_WLAN_SCRIPT, read at each enumeration and BSS list:
     interface N DESCRIPTION      the Nth interface (N from 1, the first field of its GUID)
     bss MAC RSSI TYPE [SSID]     an entry of every BSS list (TYPE 1: infrastructure)
     claim N                      BSS lists say N items more than they hold */
#include <windows.h>
#include <wlanapi.h>

#include <stddef.h>
#include <stdio.h>
#include <string.h>

static WLAN_INTERFACE_INFO interfaces[8];
static WLAN_BSS_ENTRY entries[64];
static DWORD interfaceCount, entryCount, claimedExtra;

static void readScript(void) {
    char path[MAX_PATH], line[160];
    FILE* script = GetEnvironmentVariableA("ZEL_TEST_WLAN_SCRIPT", path, sizeof path)
                       ? fopen(path, "r")
                       : NULL;
    interfaceCount = entryCount = claimedExtra = 0;
    while (script != NULL && interfaceCount < ARRAYSIZE(interfaces) &&
           entryCount < ARRAYSIZE(entries) && fgets(line, sizeof line, script) != NULL) {
        WLAN_INTERFACE_INFO* info = &interfaces[interfaceCount];
        WLAN_BSS_ENTRY* entry = &entries[entryCount];
        unsigned char* mac = entry->dot11Bssid;
        int start = 0;
        memset(entry, 0, sizeof *entry);
        line[strcspn(line, "\r\n")] = 0;
        if (sscanf(line, "interface %lu %n", &info->InterfaceGuid.Data1, &start) == 1 &&
            start > 0) {
            mbstowcs(info->strInterfaceDescription, line + start, 255);
            ++interfaceCount;
        } else if (sscanf(line, "bss %2hhx%2hhx%2hhx%2hhx%2hhx%2hhx %ld %u %32s", &mac[0], &mac[1],
                          &mac[2], &mac[3], &mac[4], &mac[5], &entry->lRssi,
                          (unsigned*)&entry->dot11BssType, (char*)entry->dot11Ssid.ucSSID) >= 8) {
            entry->dot11Ssid.uSSIDLength = strlen((char*)entry->dot11Ssid.ucSSID);
            ++entryCount;
        } else {
            sscanf(line, "claim %lu", &claimedExtra);
        }
    }
    if (script != NULL) {
        fclose(script);
    }
}

#define KNOWN(guid) ((guid)->Data1 >= 1 && (guid)->Data1 <= interfaceCount)

DWORD WINAPI WlanOpenHandle(DWORD version, PVOID reserved, PDWORD negotiated, PHANDLE client) {
    if (version != 2) {
        return ERROR_NOT_SUPPORTED;
    }
    *negotiated = version;
    *client = (HANDLE)(ULONG_PTR)0x100;
    return ERROR_SUCCESS;
}

DWORD WINAPI WlanCloseHandle(HANDLE client, PVOID reserved) {
    return ERROR_SUCCESS;
}

DWORD WINAPI WlanEnumInterfaces(HANDLE client, PVOID reserved, PWLAN_INTERFACE_INFO_LIST* list) {
    readScript();
    *list = HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY,
                      sizeof(WLAN_INTERFACE_INFO_LIST) + interfaceCount * sizeof *interfaces);
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
    readScript();
    if (!KNOWN(guid) || type != dot11_BSS_type_any) {
        return ERROR_INVALID_PARAMETER;
    }
    DWORD size = offsetof(WLAN_BSS_LIST, wlanBssEntries) + entryCount * sizeof *entries;
    *list = HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, size);
    (*list)->dwTotalSize = size;
    (*list)->dwNumberOfItems = entryCount + claimedExtra;
    memcpy((*list)->wlanBssEntries, entries, entryCount * sizeof *entries);
    return ERROR_SUCCESS;
}

VOID WINAPI WlanFreeMemory(PVOID memory) {
    HeapFree(GetProcessHeap(), 0, memory);
}
