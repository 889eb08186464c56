/* The public headers compile as strict C99 and link from C. */
#include <stdio.h>
#include <string.h>

#include "lum_rs.h"
#include "lumregion.h"

int main(void) {
    LumRegionInfo info;
    LumValue value;
    memset(&info, 0, sizeof info);
    value.type = LUM_VALUE_BOOLEAN;
    value.value.boolean = 1;
    LumRegionGetInfo(NULL, &info);
    if (LumRegionClose(NULL) != LUM_RC_FAILURE || value.value.boolean != 1)
        return 1;
    if (strcmp(LumRCToString(-492), "Unknown error -492") != 0)
        return 1;
    puts("ok");
    return 0;
}
