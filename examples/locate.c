/* locate: one position from the library, as an application asks for it.
 *   locate TILEFILE REALM                   scan with the Wi-Fi adapter
 *   locate TILEFILE REALM MAC=RSS...        use these access points as the scan */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include "zelapi.h"
#include "zelapi_ext.h"

static char** given; static int given_count;

static int scan(void* arg, ZEL_APEntry* aps, unsigned int capacity, unsigned int* count) {
    int i, k; unsigned int b[6];
    (void)arg;
    for (i = 0, *count = 0; i < given_count && *count < capacity; ++i, ++*count) {
        sscanf(given[i], "%2x%2x%2x%2x%2x%2x", &b[0], &b[1], &b[2], &b[3], &b[4], &b[5]);
        for (k = 0; k < 6; ++k) aps[*count].mac[5 - k] = (unsigned char)b[k]; /* first octet last */
        aps[*count].rss = (short)atoi(strchr(given[i], '=') ? strchr(given[i], '=') + 1 : "-70");
    }
    return 0;
}

int main(int argc, char** argv) {
    const char* paths[2]; ZEL_Authentication auth; ZEL_Location* location = NULL; int code;
    if (argc < 3) { fprintf(stderr, "usage: %s TILEFILE REALM [MAC=RSS...]\n", argv[0]); return 1; }
    paths[0] = argv[1]; paths[1] = NULL;
    auth.username = ""; auth.realm = argv[2];
    ZEL_set_local_files_path(paths);
    if (argc > 3) { given = argv + 3; given_count = argc - 3; ZEL_set_scan_source(scan, NULL); }
    code = ZEL_location(&auth, ZEL_NO_STREET_ADDRESS_LOOKUP, &location);
    if (location != NULL)
        printf("%.6f %.6f +/-%.0fm from %u APs (code %d)\n", location->latitude, location->longitude, location->hpe, location->nap, code);
    else printf("no position (code %d)\n", code);
    ZEL_free_location(location);
    return code;
}
