// Histogram quantisation (see quantize.h).
//
// First the colour cube of the bins is cut into boxes: each step splits the
// box whose best cut along one channel lowers the summed squared error the
// most, found from prefix sums of the bins' moments (count, channel sums,
// and the squares of the bins' means, which suffice: the spread of pixels
// inside one bin is the same for every set of boxes). The boxes' means seed
// k-means passes over the occupied bins, weighted by their counts; the fixed
// colours take part as centres that keep their place, and a centre left
// without bins is moved to the bin that costs the most.
#include "reduce/quantize.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "core/heap_object.h"

namespace zk::reduce {
namespace {

// 32 bins per channel plus the zero plane of the prefix sums.
constexpr int kSide = 33;
constexpr int kCells = kSide * kSide * kSide;
constexpr uint32_t kMaxCentres = 512;  // fixed colours and new ones
// K-means passes over the bins at most; they stop earlier once no bin
// changes its centre.
constexpr int kPasses = 16;

constexpr int at(int r, int g, int b) { return (r * kSide + g) * kSide + b; }

// A box of bins: planes lo (exclusive) to hi (inclusive) of red, green and
// blue, in the 1-based coordinates of the prefix sums.
struct Box {
    int lo[3], hi[3];
    // The best cut found for it: plane `cut` of channel `axis` (-1: none)
    // lowers the squared error by `gain`.
    double gain;
    int axis, cut;
};

// Sums over the box of one moment, from its prefix sums.
double volume(const Box& x, const double* m) {
    const int r0 = x.lo[0], r1 = x.hi[0], g0 = x.lo[1], g1 = x.hi[1], b0 = x.lo[2], b1 = x.hi[2];
    return m[at(r1, g1, b1)] - m[at(r1, g1, b0)] - m[at(r1, g0, b1)] + m[at(r1, g0, b0)] - m[at(r0, g1, b1)] +
           m[at(r0, g1, b0)] + m[at(r0, g0, b1)] - m[at(r0, g0, b0)];
}

// The working memory of one quantisation, in one block.
struct Work {
    // Prefix sums of the bins' moments: count, channel sums, and the squared
    // length of each bin's mean times its count.
    double w[kCells], r[kCells], g[kCells], b[kCells], q[kCells];
    Box boxes[256];
    uint8_t label[kHistogramBins];  // box of each bin

    // The occupied bins: mean colour, count, and the centre each is given.
    uint32_t bins;
    uint32_t cell[kHistogramBins];
    float mr[kHistogramBins], mg[kHistogramBins], mb[kHistogramBins], mw[kHistogramBins];
    float cost[kHistogramBins];  // count x squared distance to its centre
    uint16_t centre[kHistogramBins];

    // Centres by number (fixed colours first), and the same sorted by their
    // projection on the bins' main axis for the nearest-centre search.
    uint32_t centres, fixed;
    float cr[kMaxCentres], cg[kMaxCentres], cb[kMaxCentres];
    float key[kMaxCentres], sr[kMaxCentres], sg[kMaxCentres], sb[kMaxCentres];
    uint16_t sorted_id[kMaxCentres], position[kMaxCentres];
    bool alive[kMaxCentres];  // a new centre that stands for some bins
    double sum_n[kMaxCentres], sum_r[kMaxCentres], sum_g[kMaxCentres], sum_b[kMaxCentres];
    float axis[3];
};

double sums_term(double r, double g, double b, double w) { return w > 0 ? (r * r + g * g + b * b) / w : 0; }

// Finds the cut of `box` that lowers the squared error most: the sum over
// both halves of |sum|^2 / count, less the box's own.
void best_cut(const Work& k, Box& box) {
    const double wr = volume(box, k.r), wg = volume(box, k.g), wb = volume(box, k.b), ww = volume(box, k.w);
    const double whole = sums_term(wr, wg, wb, ww);
    box.gain = 0;
    box.axis = -1;
    for (int a = 0; a < 3; ++a) {
        Box half = box;
        for (int p = box.lo[a] + 1; p < box.hi[a]; ++p) {
            half.hi[a] = p;
            const double hw = volume(half, k.w);
            if (hw <= 0 || hw >= ww) continue;
            const double hr = volume(half, k.r), hg = volume(half, k.g), hb = volume(half, k.b);
            const double gain = sums_term(hr, hg, hb, hw) + sums_term(wr - hr, wg - hg, wb - hb, ww - hw) - whole;
            if (gain > box.gain) {
                box.gain = gain;
                box.axis = a;
                box.cut = p;
            }
        }
    }
}

// Prefix sums of the moments from the bins.
void build_moments(Work& k, const BinSums* bins) {
    for (uint32_t cell = 0; cell < kHistogramBins; ++cell) {
        const BinSums& s = bins[cell];
        if (s.n <= 0) continue;
        const int i =
            at(static_cast<int>(cell >> 10) + 1, static_cast<int>(cell >> 5 & 31) + 1, static_cast<int>(cell & 31) + 1);
        k.w[i] = s.n;
        k.r[i] = s.r;
        k.g[i] = s.g;
        k.b[i] = s.b;
        k.q[i] = (s.r * s.r + s.g * s.g + s.b * s.b) / s.n;
    }
    double* const m[] = {k.w, k.r, k.g, k.b, k.q};
    for (double* x : m) {
        for (int r = 1; r < kSide; ++r) {
            double area[kSide] = {};
            for (int g = 1; g < kSide; ++g) {
                double line = 0;
                for (int b = 1; b < kSide; ++b) {
                    line += x[at(r, g, b)];
                    area[b] += line;
                    x[at(r, g, b)] = x[at(r - 1, g, b)] + area[b];
                }
            }
        }
    }
}

// Cuts the cube into at most `count` boxes; returns how many.
uint32_t split_boxes(Work& k, uint32_t count) {
    uint32_t n = 1;
    k.boxes[0] = Box{{0, 0, 0}, {32, 32, 32}, 0, -1, 0};
    best_cut(k, k.boxes[0]);
    while (n < count) {
        uint32_t pick = 0;
        for (uint32_t i = 1; i < n; ++i)
            if (k.boxes[i].gain > k.boxes[pick].gain) pick = i;
        Box& a = k.boxes[pick];
        if (a.axis < 0 || a.gain <= 0) break;
        Box& b = k.boxes[n++];
        b = a;
        a.hi[a.axis] = a.cut;
        b.lo[b.axis] = b.cut;
        best_cut(k, a);
        best_cut(k, b);
    }
    return n;
}

// The unit vector along which the bins spread most (power iteration on
// their weighted covariance); the nearest-centre search prunes by distance
// along it.
void main_axis(Work& k) {
    double n = 0, s[3] = {}, c[3][3] = {};
    for (uint32_t i = 0; i < k.bins; ++i) {
        const double w = k.mw[i], x[3] = {k.mr[i], k.mg[i], k.mb[i]};
        n += w;
        for (int a = 0; a < 3; ++a) {
            s[a] += w * x[a];
            for (int b = 0; b < 3; ++b) c[a][b] += w * x[a] * x[b];
        }
    }
    for (int a = 0; a < 3; ++a)
        for (int b = 0; b < 3; ++b) c[a][b] = c[a][b] / n - (s[a] / n) * (s[b] / n);
    double v[3] = {0.577, 0.578, 0.576};
    for (int step = 0; step < 24; ++step) {
        double u[3];
        for (int a = 0; a < 3; ++a) u[a] = c[a][0] * v[0] + c[a][1] * v[1] + c[a][2] * v[2];
        const double len = std::sqrt(u[0] * u[0] + u[1] * u[1] + u[2] * u[2]);
        if (!(len > 1e-9)) break;
        for (int a = 0; a < 3; ++a) v[a] = u[a] / len;
    }
    for (int a = 0; a < 3; ++a) k.axis[a] = static_cast<float>(v[a]);
}

// Sorts the centres by their projection on the axis.
void sort_centres(Work& k) {
    for (uint32_t c = 0; c < k.centres; ++c) {
        k.sorted_id[c] = static_cast<uint16_t>(c);
        k.key[c] = k.cr[c] * k.axis[0] + k.cg[c] * k.axis[1] + k.cb[c] * k.axis[2];
    }
    float key[kMaxCentres];
    std::memcpy(key, k.key, sizeof key);
    std::sort(k.sorted_id, k.sorted_id + k.centres, [&](uint16_t a, uint16_t b) { return key[a] < key[b]; });
    for (uint32_t j = 0; j < k.centres; ++j) {
        const uint32_t c = k.sorted_id[j];
        k.position[c] = static_cast<uint16_t>(j);
        k.key[j] = key[c];
        k.sr[j] = k.cr[c];
        k.sg[j] = k.cg[c];
        k.sb[j] = k.cb[c];
    }
}

// The centre nearest to bin i, searched outwards from the sorted position
// `start` until the distance along the axis alone exceeds the best found.
uint32_t nearest(const Work& k, uint32_t i, uint32_t start, float* distance) {
    const float x = k.mr[i], y = k.mg[i], z = k.mb[i];
    const float p = x * k.axis[0] + y * k.axis[1] + z * k.axis[2];
    const auto d2 = [&](uint32_t j) {
        const float dr = k.sr[j] - x, dg = k.sg[j] - y, db = k.sb[j] - z;
        return dr * dr + dg * dg + db * db;
    };
    uint32_t best = start;
    float least = d2(start);
    for (uint32_t j = start + 1; j < k.centres; ++j) {
        const float along = k.key[j] - p;
        if (along * along >= least) break;
        const float d = d2(j);
        if (d < least) least = d, best = j;
    }
    for (uint32_t j = start; j-- > 0;) {
        const float along = p - k.key[j];
        if (along * along >= least) break;
        const float d = d2(j);
        if (d < least) least = d, best = j;
    }
    *distance = least;
    return k.sorted_id[best];
}

// Gives every bin its nearest centre; returns how many bins changed.
uint32_t assign(Work& k) {
    sort_centres(k);
    uint32_t changed = 0;
    for (uint32_t i = 0; i < k.bins; ++i) {
        float d = 0;
        const uint32_t c = nearest(k, i, k.position[k.centre[i]], &d);
        if (c != k.centre[i]) ++changed;
        k.centre[i] = static_cast<uint16_t>(c);
        k.cost[i] = d * k.mw[i];
    }
    return changed;
}

// Moves each new centre to the mean of its bins' pixels; a centre without
// bins goes to the bin that costs the most (which then costs nothing), or
// is given up when no bin costs anything.
void update(Work& k, const BinSums* bins) {
    for (uint32_t c = 0; c < k.centres; ++c) k.sum_n[c] = k.sum_r[c] = k.sum_g[c] = k.sum_b[c] = 0;
    for (uint32_t i = 0; i < k.bins; ++i) {
        const uint32_t c = k.centre[i];
        const BinSums& s = bins[k.cell[i]];
        k.sum_n[c] += s.n;
        k.sum_r[c] += s.r;
        k.sum_g[c] += s.g;
        k.sum_b[c] += s.b;
    }
    for (uint32_t c = k.fixed; c < k.centres; ++c) {
        if (k.sum_n[c] > 0) {
            k.cr[c] = static_cast<float>(k.sum_r[c] / k.sum_n[c]);
            k.cg[c] = static_cast<float>(k.sum_g[c] / k.sum_n[c]);
            k.cb[c] = static_cast<float>(k.sum_b[c] / k.sum_n[c]);
            k.alive[c] = true;
            continue;
        }
        uint32_t worst = 0;
        for (uint32_t i = 1; i < k.bins; ++i)
            if (k.cost[i] > k.cost[worst]) worst = i;
        k.alive[c] = k.cost[worst] > 0;
        if (!k.alive[c]) continue;
        k.cost[worst] = 0;
        k.cr[c] = k.mr[worst];
        k.cg[c] = k.mg[worst];
        k.cb[c] = k.mb[worst];
    }
}

uint8_t channel(float v) { return static_cast<uint8_t>(std::clamp(std::lround(v), 0l, 255l)); }

}  // namespace

int32_t quantize_histogram(const BinSums* bins, const RGBQUAD* fixed, uint32_t fixed_count, uint32_t fill, RGBQUAD* out,
                           uint32_t* made) {
    *made = 0;
    fill = std::min(fill, 256u);
    fixed_count = std::min(fixed_count, 255u);
    const HeapObject<Work> block;
    Work* k = block.get();
    if (!k) return ST_NO_MEMORY;

    build_moments(*k, bins);
    // Boxes for the fixed colours too: a box that a fixed colour already
    // serves (it lies within the box's own spread of its mean) needs no new
    // colour. Of the rest, the `fill` that would cost most without one of
    // their own seed the new centres.
    const uint32_t boxes = split_boxes(*k, std::min(fill + fixed_count, 256u));
    constexpr uint16_t kNone = 0xFFFF;
    uint32_t seeds = 0;
    double cost[256];
    uint16_t seed_of[256];  // box -> new centre, or kNone
    for (uint32_t b = 0; b < boxes; ++b) {
        const Box& x = k->boxes[b];
        const double w = volume(x, k->w), r = volume(x, k->r), g = volume(x, k->g), bl = volume(x, k->b);
        const double spread = volume(x, k->q) - sums_term(r, g, bl, w);
        double nearest_fixed = fixed_count ? 1e300 : 0;
        for (uint32_t f = 0; f < fixed_count; ++f) {
            const double dr = fixed[f].rgbRed - r / w, dg = fixed[f].rgbGreen - g / w, db = fixed[f].rgbBlue - bl / w;
            nearest_fixed = std::min(nearest_fixed, dr * dr + dg * dg + db * db);
        }
        const bool served = fixed_count > 0 && w * nearest_fixed <= spread;
        cost[b] = served ? -1 : spread + w * nearest_fixed;
        seed_of[b] = kNone;
    }
    for (; seeds < fill; ++seeds) {
        const uint32_t b = static_cast<uint32_t>(std::max_element(cost, cost + boxes) - cost);
        if (boxes == 0 || cost[b] < 0) break;
        cost[b] = -1;
        seed_of[b] = static_cast<uint16_t>(seeds);
        const Box& x = k->boxes[b];
        const double w = volume(x, k->w);
        const uint32_t c = fixed_count + seeds;
        k->cr[c] = static_cast<float>(volume(x, k->r) / w);
        k->cg[c] = static_cast<float>(volume(x, k->g) / w);
        k->cb[c] = static_cast<float>(volume(x, k->b) / w);
        k->alive[c] = true;
    }
    // New centres without a box start far from every bin: the first update
    // moves them to the bins that cost most.
    for (uint32_t c = fixed_count + seeds; c < fixed_count + fill; ++c) k->cr[c] = k->cg[c] = k->cb[c] = -4096;
    for (uint32_t c = 0; c < fixed_count; ++c) {
        k->cr[c] = fixed[c].rgbRed;
        k->cg[c] = fixed[c].rgbGreen;
        k->cb[c] = fixed[c].rgbBlue;
    }
    k->fixed = fixed_count;
    k->centres = fixed_count + fill;

    // The occupied bins, each starting the search for its nearest centre at
    // its box's.
    for (uint32_t b = 0; b < boxes; ++b) {
        const Box& x = k->boxes[b];
        for (int r = x.lo[0]; r < x.hi[0]; ++r)
            for (int g = x.lo[1]; g < x.hi[1]; ++g)
                for (int c = x.lo[2]; c < x.hi[2]; ++c) k->label[r << 10 | g << 5 | c] = static_cast<uint8_t>(b);
    }
    k->bins = 0;
    for (uint32_t cell = 0; cell < kHistogramBins; ++cell) {
        const BinSums& s = bins[cell];
        if (s.n <= 0) continue;
        const uint32_t i = k->bins++;
        const uint32_t seed = seed_of[k->label[cell]];
        k->cell[i] = cell;
        k->mr[i] = static_cast<float>(s.r / s.n);
        k->mg[i] = static_cast<float>(s.g / s.n);
        k->mb[i] = static_cast<float>(s.b / s.n);
        k->mw[i] = static_cast<float>(s.n);
        k->centre[i] = static_cast<uint16_t>(seed == kNone ? 0 : fixed_count + seed);
    }
    if (k->bins == 0) return ST_OK;

    main_axis(*k);
    for (int pass = 0; pass < kPasses; ++pass) {
        const uint32_t changed = assign(*k);
        if (pass > 0 && changed == 0) break;
        update(*k, bins);
    }

    // The new centres that stand for pixels, rounded, each colour once and
    // none that a fixed colour already gives.
    uint32_t n = 0;
    for (uint32_t c = fixed_count; c < k->centres && n < fill; ++c) {
        if (!k->alive[c]) continue;
        const RGBQUAD e{channel(k->cb[c]), channel(k->cg[c]), channel(k->cr[c]), 0};
        const auto same = [&](const RGBQUAD& o) {
            return o.rgbRed == e.rgbRed && o.rgbGreen == e.rgbGreen && o.rgbBlue == e.rgbBlue;
        };
        if (std::any_of(out, out + n, same) || std::any_of(fixed, fixed + fixed_count, same)) continue;
        out[n++] = e;
    }
    *made = n;
    return ST_OK;
}

}  // namespace zk::reduce
