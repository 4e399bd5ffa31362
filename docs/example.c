#include <stdio.h>
#include <stdlib.h>
#include <zkernel.h>

int main(void) {
    BitmapHandle src, dst;
    uint8_t row[3 * 64];
    long in = 0, out = 0;
    int32_t x, y, st;
    /* A 64 x 48 24-bit bitmap, row 0 at the top, filled with a gradient. */
    st = Z_CreateBitmap(&src, Z_BITMAPHANDLE_SIZE, TYPE_CONV, 64, 48, 24, CO_RGB, NULL, VP_TOP_LEFT, NULL, 0);
    if (st != ST_OK) return fprintf(stderr, "%s\n", Z_StatusName(st)), 1;
    for (y = 0; y < 48; y++) {
        for (x = 0; x < 64; x++) row[3 * x] = (uint8_t)(x * 4), row[3 * x + 1] = (uint8_t)(y * 5), row[3 * x + 2] = 90;
        Z_PutBitmapRow(&src, row, (uint32_t)y, sizeof row);
    }
    /* To 8 bits: indices into the fixed 256-colour palette, Floyd-Steinberg. */
    st = Z_ColorResBitmap(&src, &dst, Z_BITMAPHANDLE_SIZE, 8, CRF_FIXED_PALETTE | CRF_DITHER(DITHER_FLOYD), NULL, NULL,
                          0, NULL, NULL);
    if (st != ST_OK) return fprintf(stderr, "%s\n", Z_StatusName(st)), Z_FreeBitmap(&src), 1;
    for (y = 0; y < 48; y++) { /* error diffusion keeps each row's mean red */
        Z_GetBitmapRow(&dst, row, (uint32_t)y, 64);
        for (x = 0; x < 64; x++) in += x * 4, out += dst.Palette[row[x]].rgbRed;
    }
    printf("%d x %d at %d bits; mean red %ld before, %ld after\n", dst.Width, dst.Height, dst.BitsPerPixel, in / 3072,
           out / 3072);
    Z_FreeBitmap(&dst);
    Z_FreeBitmap(&src);
    return dst.BitsPerPixel == 8 && labs(in - out) < 3072 * 2 ? 0 : 1;
}
