/* A C program outside the build, compiled against an installed zkernel: it
 * initialises and allocates a bitmap, writes a row and reads it back. */
#include <stdio.h>
#include <string.h>

#include <zkernel.h>

int main(void) {
    BitmapHandle b;
    uint8_t row[15], back[15];
    uint32_t i;
    if (Z_InitBitmap(&b, Z_BITMAPHANDLE_SIZE, 5, 3, 24) != ST_OK || b.BytesPerLine != 16) return 1;
    if (Z_AllocateBitmap(&b, TYPE_CONV) != ST_OK) return 2;
    for (i = 0; i < sizeof row; ++i) row[i] = (uint8_t)(i * 17 + 3);
    memset(back, 0, sizeof back);
    if (Z_PutBitmapRow(&b, row, 2, sizeof row) != (int32_t)sizeof row ||
        Z_GetBitmapRow(&b, back, 2, sizeof back) != (int32_t)sizeof back || memcmp(row, back, sizeof row) != 0) {
        Z_FreeBitmap(&b);
        return 3;
    }
    Z_FreeBitmap(&b);
    if (b.Flags & BF_ALLOCATED) return 4;
    printf("consumer ok\n");
    return 0;
}
