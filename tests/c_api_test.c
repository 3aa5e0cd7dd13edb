/* The public header as a C program sees it: plain C89/C99, the records' layout, the
 * free functions linked from libzelapi.so and accepting null. */
#include <stddef.h>
#include <stdio.h>

#include "zelapi.h"

static int check(int condition, const char* what) {
    if (!condition) {
        printf("FAILED: %s\n", what);
    }
    return condition ? 0 : 1;
}

int main(void) {
    int failures = 0;
    ZEL_APEntry entry;
    ZEL_Location location;
    ZEL_LocationCallback callback = NULL;

    failures += check(sizeof(entry) == 8, "ZEL_APEntry is 8 bytes");
    failures +=
        check(offsetof(ZEL_StreetAddress, state_code) == 7 * sizeof(char*), "state_code offset");
    failures += check(sizeof(((ZEL_StreetAddress*)0)->country_code) == 4, "country_code size");
    location.known_aps.aps = NULL; /* the records' fields are usable from C */
    failures += check(location.known_aps.aps == NULL && callback == NULL, "AP table");

    ZEL_free_location(NULL);
    ZEL_free_ip_location(NULL);

    printf("%d passed, %d failed\n", 4 - failures, failures);
    return failures == 0 ? 0 : 1;
}
