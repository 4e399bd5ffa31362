#include "scene.h"

#include <algorithm>
#include <cmath>

#include "font.h"

namespace zk_tool {
namespace {

struct Rgb {
    double r, g, b;
};

Rgb mix(Rgb a, Rgb b, double t) { return {a.r + (b.r - a.r) * t, a.g + (b.g - a.g) * t, a.b + (b.b - a.b) * t}; }

Rgb hsv(double h, double s, double v) {
    h = std::fmod(h, 1.0) * 6.0;
    const int i = static_cast<int>(h);
    const double f = h - i, p = v * (1 - s), q = v * (1 - s * f), t = v * (1 - s * (1 - f));
    switch (i % 6) {
        case 0: return {v, t, p};
        case 1: return {q, v, p};
        case 2: return {p, v, t};
        case 3: return {p, q, v};
        case 4: return {t, p, v};
        default: return {v, p, q};
    }
}

uint32_t hash(uint32_t x, uint32_t y) {
    uint32_t h = x * 0x9E3779B1u ^ (y + 0x7F4A7C15u) * 0x85EBCA77u;
    h ^= h >> 15;
    h *= 0x2C1B3C6Du;
    h ^= h >> 12;
    return h;
}

Rgb pixel(double u, double v, double aspect, int32_t x, int32_t y) {
    // Sky and ground with a horizon of rolling hills.
    const double horizon = 0.58 + 0.05 * std::sin(u * 9.0) + 0.025 * std::sin(u * 23.0 + 1.0);
    Rgb c;
    if (v < horizon) {
        c = mix(Rgb{0.10, 0.25, 0.65}, Rgb{0.98, 0.62, 0.32}, std::pow(v / horizon, 1.6));
        const double du = (u - 0.18) * aspect, dv = v - 0.22;
        const double d = std::sqrt(du * du + dv * dv);
        if (d < 0.07)
            c = Rgb{1.0, 0.93, 0.55};
        else
            c = mix(c, Rgb{1.0, 0.85, 0.45}, std::max(0.0, 0.6 - (d - 0.07) * 4.0));
    } else {
        const double t = (v - horizon) / (1.0 - horizon);
        c = mix(Rgb{0.25, 0.55, 0.18}, Rgb{0.35, 0.24, 0.10}, t);
        c = mix(c, Rgb{0.1, 0.3, 0.05}, 0.25 + 0.25 * std::sin(u * 60.0 + t * 20.0));
    }
    // Hard-edged buildings with lit windows.
    const double bx[] = {0.30, 0.36, 0.43, 0.49};
    const double bw[] = {0.055, 0.06, 0.05, 0.045};
    const double bt[] = {0.34, 0.26, 0.40, 0.31};
    const Rgb bc[] = {{0.55, 0.18, 0.20}, {0.30, 0.32, 0.40}, {0.82, 0.70, 0.45}, {0.20, 0.40, 0.45}};
    for (int i = 0; i < 4; ++i)
        if (u >= bx[i] && u < bx[i] + bw[i] && v >= bt[i] && v < 0.72) {
            c = bc[i];
            const double wu = (u - bx[i]) / bw[i] * 4.0, wv = (v - bt[i]) * 40.0;
            if (std::fmod(wu, 1.0) > 0.35 && std::fmod(wv, 1.0) > 0.45 && wu > 0.5 && wu < 3.6)
                c = ((x * 7 + y / 3) % 5 == 0) ? Rgb{0.15, 0.15, 0.2} : Rgb{1.0, 0.9, 0.5};
        }
    // A page for the text, with a soft shadow.
    if (u >= 0.04 && u < 0.27 && v >= 0.62 && v < 0.95)
        c = Rgb{0.96, 0.95, 0.90};
    else if (u >= 0.05 && u < 0.28 && v >= 0.63 && v < 0.96)
        c = mix(c, Rgb{0, 0, 0}, 0.5);
    // The colour wheel: hue by angle, saturation by radius, darker outside.
    const double cu = (u - 0.76) * aspect, cv = v - 0.52, r = std::sqrt(cu * cu + cv * cv);
    if (r < 0.30) {
        const double hue = std::atan2(cv, cu) / (2 * M_PI) + 0.5;
        c = hsv(hue, std::min(1.0, r / 0.24), r < 0.24 ? 1.0 : 1.0 - (r - 0.24) * 8.0);
    }
    // Sensor noise.
    const double n =
        (static_cast<double>(hash(static_cast<uint32_t>(x), static_cast<uint32_t>(y)) & 0xFF) - 127.5) / 127.5 * 0.018;
    return {c.r + n, c.g + n, c.b + n};
}

uint8_t to_byte(double v) { return static_cast<uint8_t>(std::clamp(v * 255.0 + 0.5, 0.0, 255.0)); }

}  // namespace

void scene_row(int32_t width, int32_t height, int32_t y, uint8_t* rgb) {
    const double aspect = static_cast<double>(width) / height;
    const double v = (y + 0.5) / height;
    for (int32_t x = 0; x < width; ++x) {
        const Rgb c = pixel((x + 0.5) / width, v, aspect, x, y);
        rgb[3 * x] = to_byte(c.r);
        rgb[3 * x + 1] = to_byte(c.g);
        rgb[3 * x + 2] = to_byte(c.b);
    }
}

std::vector<uint8_t> make_scene(int32_t width, int32_t height) {
    std::vector<uint8_t> image(static_cast<size_t>(width) * height * 3);
    const size_t stride = static_cast<size_t>(width) * 3;
    for (int32_t y = 0; y < height; ++y) scene_row(width, height, y, image.data() + y * stride);
    // Text-like strokes on the page: lines of the built-in font.
    const int scale = std::max(1, height / 400);
    const int left = static_cast<int>(0.055 * width), top = static_cast<int>(0.645 * height);
    const int right = static_cast<int>(0.265 * width), bottom = static_cast<int>(0.94 * height);
    static const char* const kWords[] = {"zkernel", "dithers", "every", "row",  "of", "any",     "bitmap",
                                         "in",      "tiles",   "on",    "disk", "or", "memory,", "fast."};
    int word = 0;
    for (int y = top; y + text_height(scale) <= bottom; y += text_height(scale) + 2 * scale) {
        int x = left;
        while (true) {
            const std::string w = kWords[word % 14];
            if (x + text_width(w, scale) > right) break;
            draw_text(image.data(), stride, width, height, x, y, w, 20, 20, 40, scale);
            x += text_width(w + " ", scale);
            ++word;
        }
    }
    return image;
}

}  // namespace zk_tool
