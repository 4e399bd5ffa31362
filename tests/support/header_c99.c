/* Compiled as strict C99: the public header must be plain C, and a C caller
 * must see the same record as the library. */
#include <stdio.h>
#include <string.h>

#include "zkernel.h"

int main(void) {
    BitmapHandle b;
    memset(&b, 0xAB, sizeof b);
    if (Z_InitBitmap(&b, Z_BITMAPHANDLE_SIZE, 3, 2, 24) != ST_OK) return 1;
    if (b.StructSize != (uint32_t)Z_BITMAPHANDLE_SIZE || b.BytesPerLine != 12 || b.Size != 24) return 2;
    if (Z_InitBitmap(&b, Z_BITMAPHANDLE_SIZE - 1, 3, 2, 24) != ST_BAD_STRUCT_SIZE) return 3;
    printf("C caller ok, record %d bytes\n", Z_BITMAPHANDLE_SIZE);
    return 0;
}
