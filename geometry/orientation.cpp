// View-perspective values: the view-only flip, mirror and turn, the change
// parameters, converting pixel data between perspectives, and mapping points
// and rectangles between stored and displayed coordinates.
#include "orientation.h"

#include "bitmap_handle.h"
#include "flip.h"

namespace zk::geometry {
namespace {

// The value after a view-only flip, mirror or clockwise quarter turn,
// indexed by the value (1 to 8).
constexpr uint32_t kAfterFlip[9] = {0, 4, 3, 2, 1, 8, 7, 6, 5};
constexpr uint32_t kAfterReverse[9] = {0, 2, 1, 4, 3, 6, 5, 8, 7};
constexpr uint32_t kAfterTurn[9] = {0, 6, 7, 8, 5, 2, 3, 4, 1};

// The value outside 1 to 8 that a view-only turn leaves in the field.
constexpr uint32_t kBadTurn = static_cast<uint32_t>(ST_BAD_PARAM);

void apply_view(BitmapHandle* b, const uint32_t (&table)[9]) {
    if (valid_perspective(b->ViewPerspective)) b->ViewPerspective = table[b->ViewPerspective];
}

int32_t rotate_view(BitmapHandle* b, int32_t angle) {
    int64_t a = angle;
    if (a < 0) a += 360 * ((359 - a) / 360);
    a %= 360;
    if (a == 0) return ST_OK;
    if (a != 90 && a != 180 && a != 270) return ST_BAD_PARAM;
    for (int64_t k = 0; k < a / 90; ++k)
        b->ViewPerspective = valid_perspective(b->ViewPerspective) ? kAfterTurn[b->ViewPerspective] : kBadTurn;
    return ST_OK;
}

// Two's-complement narrowing of coordinate arithmetic done in 64 bits.
constexpr int32_t narrow(int64_t v) { return static_cast<int32_t>(static_cast<uint32_t>(v)); }

// Moves the rectangle of data stored w x h in perspective `from` to where it
// lies when the data is stored in perspective `to`. Right and bottom are
// exclusive. A turn of -90 (the pair 2 to 8) is not one of the three turns
// recognised here, so only its flip is applied.
void change_rect(int64_t from, int64_t w, int64_t h, int64_t to, RECT* r) {
    bool flip = false;
    int32_t angle = 0;
    if (!change_params(from, to, &flip, &angle)) return;
    int64_t l = r->left, t = r->top, rt = r->right, b = r->bottom;
    if (flip) {
        const int64_t nt = h - b, nb = h - t;
        t = nt;
        b = nb;
    }
    if (angle == 90) {
        const int64_t nl = h - b, nt = l, nr = h - t, nb = rt;
        l = nl, t = nt, rt = nr, b = nb;
    } else if (angle == 180) {
        const int64_t nl = w - rt, nt = h - b, nr = w - l, nb = h - t;
        l = nl, t = nt, rt = nr, b = nb;
    } else if (angle == 270) {
        const int64_t nl = t, nt = w - rt, nr = b, nb = w - l;
        l = nl, t = nt, rt = nr, b = nb;
    }
    *r = RECT{narrow(l), narrow(t), narrow(rt), narrow(b)};
}

// Moves the point (x, y) of data stored w x h in perspective `from` as
// change_rect does, pixel for pixel.
bool change_point(int64_t from, int64_t w, int64_t h, int64_t to, int32_t* px, int32_t* py) {
    bool flip = false;
    int32_t angle = 0;
    if (!change_params(from, to, &flip, &angle)) return false;
    int64_t x = *px, y = *py;
    if (flip) y = h - y - 1;
    if (angle == 90) {
        const int64_t nx = h - y - 1, ny = x;
        x = nx, y = ny;
    } else if (angle == 180) {
        x = w - x - 1;
        y = h - y - 1;
    } else if (angle == 270) {
        const int64_t nx = y, ny = w - x - 1;
        x = nx, y = ny;
    }
    *px = narrow(x);
    *py = narrow(y);
    return true;
}

// Displayed width and height of a bitmap in its own perspective, exchanged
// when the other perspective is 6 or 8 (and only then: 5 and 7 keep them).
void other_extent(const BitmapHandle& b, int64_t other, int64_t* a, int64_t* c) {
    const bool own = transposed_perspective(b.ViewPerspective);
    *a = own ? b.Height : b.Width;
    *c = own ? b.Width : b.Height;
    if (other == 6 || other == 8) {
        const int64_t t = *a;
        *a = *c;
        *c = t;
    }
}

// Converts the pixel data of an allocated bitmap to perspective `to` in
// place (its perspective and `to` both valid and different). On failure the
// bitmap is as it was.
int32_t convert_in_place(BitmapHandle* b, uint32_t to) {
    const uint32_t from = b->ViewPerspective;
    bool flip = false;
    int32_t angle = 0;
    if (!change_params(from, to, &flip, &angle)) return ST_BAD_PARAM;
    ProgressOff quiet;
    int32_t r = ST_OK;
    if (flip && angle == 180) {
        // Reversing the row order and then turning by 180 degrees is
        // mirroring every row: one pass instead of three.
        r = half_turn(b, true);
    } else {
        if (flip) r = flip_row_order(b, false);
        const bool flipped = flip && r == ST_OK;
        if (r == ST_OK && angle == 180) {
            r = half_turn(b, false);
        } else if (r == ST_OK && angle != 0) {
            b->ViewPerspective = VP_TOP_LEFT;
            r = Z_RotateBitmap90(b, angle == 90 ? 1 : 0);
            b->ViewPerspective = from;
        }
        if (r != ST_OK && flipped && flip_row_order(b, false) != ST_OK) {
            // The row order could not be put back: show the flipped rows
            // as the same picture instead.
            for (uint32_t v = 1; v <= 8; ++v) {
                bool f = false;
                int32_t a = 0;
                if (change_params(v, from, &f, &a) && f && a == 0) b->ViewPerspective = v;
            }
        }
    }
    if (r == ST_OK) b->ViewPerspective = to;
    return r;
}

}  // namespace

bool change_params(int64_t from, int64_t to, bool* flip_out, int32_t* angle_out) {
    if (!valid_perspective(from) || !valid_perspective(to)) return false;
    // Start state by the source: flip, mirror mark, angle.
    struct Start {
        int32_t flip, mirror, angle;
    };
    constexpr Start kStart[9] = {{0, 0, 0},  {0, 0, 0},  {0, 1, 0},   {0, 0, 180}, {1, 0, 0},
                                 {1, 0, 90}, {0, 0, 90}, {1, 0, 270}, {0, 0, 270}};
    // By the target: angle subtracted, and whether the state is negated.
    struct Target {
        int32_t minus, negate;
    };
    constexpr Target kTarget[9] = {{0, 0}, {0, 0}, {180, 1}, {180, 0}, {0, 1}, {90, 1}, {90, 0}, {270, 1}, {270, 0}};
    int32_t f = kStart[from].flip;
    int32_t a = kStart[from].angle - kTarget[to].minus;
    if (kTarget[to].negate) {
        f = 1 - f;
        a = -a;
    }
    if (kStart[from].mirror) {
        if (f == 1) {
            f = 0;
            a += 180;
        } else {
            f = 1;
            a -= 180;
        }
    }
    // One normalising step only (so 2 to 8 stays at -90).
    if (a < 0)
        a += 360;
    else if (a >= 360)
        a -= 360;
    *flip_out = f != 0;
    *angle_out = a;
    return true;
}

}  // namespace zk::geometry

namespace zg = zk::geometry;

extern "C" int32_t Z_API Z_FlipBitmapViewPerspective(BitmapHandle* bitmap) {
    if (!bitmap) return ST_BAD_PARAM;
    if (bitmap->StructSize != zk::kStructSize) return ST_BAD_STRUCT_SIZE;
    zg::apply_view(bitmap, zg::kAfterFlip);
    return ST_OK;
}

extern "C" int32_t Z_API Z_IntFlipBitmapViewPerspective(BitmapHandle* bitmap) {
    if (!bitmap) return ST_INVALID_BITMAP;
    zg::apply_view(bitmap, zg::kAfterFlip);
    return ST_OK;
}

extern "C" int32_t Z_API Z_ReverseBitmapViewPerspective(BitmapHandle* bitmap) {
    if (!bitmap) return ST_BAD_PARAM;
    if (bitmap->StructSize != zk::kStructSize) return ST_BAD_STRUCT_SIZE;
    zg::apply_view(bitmap, zg::kAfterReverse);
    return ST_OK;
}

extern "C" int32_t Z_API Z_IntReverseBitmapViewPerspective(BitmapHandle* bitmap) {
    if (!bitmap) return ST_INVALID_BITMAP;
    zg::apply_view(bitmap, zg::kAfterReverse);
    return ST_OK;
}

extern "C" int32_t Z_API Z_RotateBitmapViewPerspective(BitmapHandle* bitmap, int32_t angle) {
    if (!bitmap) return ST_BAD_PARAM;
    if (bitmap->StructSize != zk::kStructSize) return ST_BAD_STRUCT_SIZE;
    return zg::rotate_view(bitmap, angle);
}

extern "C" int32_t Z_API Z_IntRotateBitmapViewPerspective(BitmapHandle* bitmap, int32_t angle) {
    if (!bitmap) return ST_BAD_PARAM;
    return zg::rotate_view(bitmap, angle);
}

extern "C" int32_t Z_API Z_GetChangeViewPerspectiveParams(int32_t from, int32_t to, uint32_t* flip, uint32_t* angle) {
    if (!flip || !angle) return ST_BAD_PARAM;
    bool f = false;
    int32_t a = 0;
    if (!zg::change_params(from, to, &f, &a)) return ST_BAD_PARAM;
    *flip = f ? 1u : 0u;
    *angle = static_cast<uint32_t>(a);
    return ST_OK;
}

extern "C" int32_t Z_API Z_IntChangeBitmapViewPerspective(BitmapHandle* dst, BitmapHandle* src, int32_t structSize,
                                                          int32_t to, uint32_t dupFlags) {
    if (!src) return ST_BAD_PARAM;
    const int64_t target = to;
    if (src->ViewPerspective != target &&
        (!zg::valid_perspective(src->ViewPerspective) || !zg::valid_perspective(target)))
        return ST_BAD_PARAM;
    if (!dst || dst == src) {
        if (src->ViewPerspective == target) return ST_OK;
        if (!zk::allocated(src)) return ST_INVALID_BITMAP;
        return zg::convert_in_place(src, static_cast<uint32_t>(to));
    }
    int32_t r = Z_DupBitmapNewDim(dst, src, structSize, src->Width, src->Height, src->BitsPerPixel, dupFlags);
    if (r != ST_OK) return r;
    r = Z_CopyBitmapData(dst, src);
    if (r == ST_OK && dst->ViewPerspective != target) r = zg::convert_in_place(dst, static_cast<uint32_t>(to));
    if (r != ST_OK) Z_FreeDuplicateBitmap(dst, dupFlags);
    return r;
}

extern "C" int32_t Z_API Z_ChangeBitmapViewPerspective(BitmapHandle* dst, BitmapHandle* src, int32_t structSize,
                                                       int32_t to) {
    if (!src || !(src->Flags & BF_ALLOCATED)) return ST_BAD_PARAM;
    if (src->StructSize != zk::kStructSize) return ST_BAD_STRUCT_SIZE;
    if (!dst || dst == src) return Z_IntChangeBitmapViewPerspective(nullptr, src, Z_BITMAPHANDLE_SIZE, to, 0);
    if (structSize != Z_BITMAPHANDLE_SIZE) return ST_BAD_STRUCT_SIZE;
    dst->StructSize = zk::kStructSize;
    return Z_IntChangeBitmapViewPerspective(dst, src, structSize, to,
                                            DUP_ALLOCATE | DUP_PALETTE | DUP_REGION | DUP_OVERLAYS);
}

extern "C" int32_t Z_API Z_ChangeRectViewPerspective(int32_t from, int32_t width, int32_t height, int32_t to,
                                                     RECT* rect) {
    if (!rect) return ST_BAD_PARAM;
    zg::change_rect(from, width, height, to, rect);
    return ST_OK;
}

extern "C" int32_t Z_API Z_PointFromBitmap(BitmapHandle* bitmap, int32_t to, int32_t* x, int32_t* y) {
    if (!bitmap || !x || !y) return ST_BAD_PARAM;
    if (bitmap->StructSize != zk::kStructSize) return ST_BAD_STRUCT_SIZE;
    if (bitmap->ViewPerspective == static_cast<int64_t>(to)) return ST_OK;
    return zg::change_point(bitmap->ViewPerspective, bitmap->Width, bitmap->Height, to, x, y) ? ST_OK : ST_BAD_PARAM;
}

extern "C" int32_t Z_API Z_PointToBitmap(BitmapHandle* bitmap, int32_t from, int32_t* x, int32_t* y) {
    if (!bitmap || !x || !y) return ST_BAD_PARAM;
    if (bitmap->StructSize != zk::kStructSize) return ST_BAD_STRUCT_SIZE;
    if (bitmap->ViewPerspective == static_cast<int64_t>(from)) return ST_OK;
    int64_t a = 0, b = 0;
    zg::other_extent(*bitmap, from, &a, &b);
    return zg::change_point(from, a, b, bitmap->ViewPerspective, x, y) ? ST_OK : ST_BAD_PARAM;
}

extern "C" int32_t Z_API Z_RectFromBitmap(BitmapHandle* bitmap, int32_t to, RECT* rect) {
    if (!bitmap) return ST_BAD_PARAM;
    if (bitmap->StructSize != zk::kStructSize) return ST_BAD_STRUCT_SIZE;
    if (bitmap->ViewPerspective == static_cast<int64_t>(to)) return ST_OK;
    return Z_ChangeRectViewPerspective(static_cast<int32_t>(bitmap->ViewPerspective), bitmap->Width, bitmap->Height, to,
                                       rect);
}

extern "C" int32_t Z_API Z_RectToBitmap(BitmapHandle* bitmap, int32_t from, RECT* rect) {
    if (!bitmap) return ST_BAD_PARAM;
    if (bitmap->StructSize != zk::kStructSize) return ST_BAD_STRUCT_SIZE;
    if (bitmap->ViewPerspective == static_cast<int64_t>(from)) return ST_OK;
    if (!rect) return ST_BAD_PARAM;
    int64_t a = 0, b = 0;
    zg::other_extent(*bitmap, from, &a, &b);
    zg::change_rect(from, a, b, bitmap->ViewPerspective, rect);
    return ST_OK;
}
