// Halftone quality measures shared by the screening tests: the Bartlett
// periodogram and its radial average, the cut-off ratio, the low-frequency
// energy, the anisotropy excess, the worm index, flat-patch helpers, and the
// settings and object holder every screening test starts from. Test-only;
// plain and slow is fine.
#pragma once

#include <zt/screening.h>

#include <cmath>
#include <complex>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

namespace zt::test::halftone {

inline ScreeningSettings settings_for(uint32_t mode, uint32_t levels = 2, uint32_t bits = 1) {
  ScreeningSettings s{};
  s.mode = mode;
  s.levels = levels;
  s.outputBits = bits;
  s.linesPerInch = 150;
  s.resolutionX = s.resolutionY = 600;
  return s;
}

struct ObjectDeleter {
  void operator()(ScreeningObject *o) const { DestroyScreeningObject(o); }
};
using Object = std::unique_ptr<ScreeningObject, ObjectDeleter>;

// Bit x of a one-bit plane, first pixel in the high bit.
inline bool bit(const uint8_t *plane, uint32_t x) { return ((plane[x >> 3] >> (7 - (x & 7))) & 1) != 0; }

using Complex = std::complex<double>;

inline void fft1(Complex *a, size_t n, size_t stride) {
  std::vector<Complex> buf(n);
  for (size_t i = 0; i < n; ++i) buf[i] = a[i * stride];
  for (size_t i = 1, j = 0; i < n; ++i) {
    size_t bit = n >> 1;
    for (; j & bit; bit >>= 1) j ^= bit;
    j ^= bit;
    if (i < j) std::swap(buf[i], buf[j]);
  }
  for (size_t len = 2; len <= n; len <<= 1) {
    const double angle = -2.0 * M_PI / static_cast<double>(len);
    const Complex wl(std::cos(angle), std::sin(angle));
    for (size_t i = 0; i < n; i += len) {
      Complex w(1.0);
      for (size_t k = 0; k < len / 2; ++k) {
        const Complex u = buf[i + k], v = buf[i + k + len / 2] * w;
        buf[i + k] = u + v;
        buf[i + k + len / 2] = u - v;
        w *= wl;
      }
    }
  }
  for (size_t i = 0; i < n; ++i) a[i * stride] = buf[i];
}

inline void fft2(std::vector<Complex> &a, size_t n) {
  for (size_t y = 0; y < n; ++y) fft1(&a[y * n], n, 1);
  for (size_t x = 0; x < n; ++x) fft1(&a[x], n, n);
}

// A binary (or density) image, row-major.
struct Image {
  size_t w = 0, h = 0;
  std::vector<double> v;
  double at(size_t x, size_t y) const { return v[y * w + x]; }
  double mean() const {
    double s = 0;
    for (double d : v) s += d;
    return s / static_cast<double>(v.size());
  }
};

struct Spectrum {
  double cutoff_ratio = 0, lfe_db = 0, anisotropy_db = 0;
};

// Periodogram of tiles of side n cut from `img` (normalised by g (1 - g)),
// then its radial measures. k_eff is the number of independent tiles.
inline Spectrum spectrum(const Image &img, size_t n, double g, double k_eff) {
  std::vector<double> p(n * n, 0.0);
  size_t tiles = 0;
  for (size_t ty = 0; ty + n <= img.h; ty += n)
    for (size_t tx = 0; tx + n <= img.w; tx += n) {
      std::vector<Complex> a(n * n);
      double m = 0;
      for (size_t y = 0; y < n; ++y)
        for (size_t x = 0; x < n; ++x) m += img.at(tx + x, ty + y);
      m /= static_cast<double>(n * n);
      for (size_t y = 0; y < n; ++y)
        for (size_t x = 0; x < n; ++x) a[y * n + x] = img.at(tx + x, ty + y) - m;
      fft2(a, n);
      for (size_t i = 0; i < n * n; ++i) p[i] += std::norm(a[i]) / static_cast<double>(n * n);
      ++tiles;
    }
  for (double &v : p) v /= static_cast<double>(tiles) * g * (1 - g);
  const size_t rings = n / 2 + 1;
  std::vector<double> sum(rings, 0), sum2(rings, 0), count(rings, 0);
  double low = 0, low_n = 0;
  const double fg = std::sqrt(std::fmin(g, 1 - g));
  for (size_t y = 0; y < n; ++y)
    for (size_t x = 0; x < n; ++x) {
      const double u = x < n / 2 ? double(x) : double(x) - double(n);
      const double v = y < n / 2 ? double(y) : double(y) - double(n);
      const double r = std::sqrt(u * u + v * v);
      const double f = r / static_cast<double>(n);
      if (f > 0 && f < fg / 2) {
        low += p[y * n + x];
        low_n += 1;
      }
      const size_t ring = static_cast<size_t>(std::lround(r));
      if (ring < rings && ring > 0) {
        sum[ring] += p[y * n + x];
        sum2[ring] += p[y * n + x] * p[y * n + x];
        count[ring] += 1;
      }
    }
  Spectrum s;
  s.lfe_db = 10 * std::log10(low_n > 0 ? low / low_n : 1e-12);
  std::vector<double> pr(rings, 0);
  for (size_t r = 1; r < rings; ++r) pr[r] = count[r] > 0 ? sum[r] / count[r] : 0;
  for (size_t r = 2; r + 1 < rings; ++r) {
    if ((pr[r - 1] + pr[r] + pr[r + 1]) / 3 >= 0.5) {
      s.cutoff_ratio = (static_cast<double>(r) / static_cast<double>(n)) / fg;
      break;
    }
  }
  double a = 0, an = 0;
  for (size_t r = 1; r < rings; ++r) {
    const double f = static_cast<double>(r) / static_cast<double>(n);
    if (f < fg / 2 || f > 0.5 || count[r] < 2 || pr[r] <= 0) continue;
    const double var = sum2[r] / count[r] - pr[r] * pr[r];
    a += var / (pr[r] * pr[r]);
    an += 1;
  }
  s.anisotropy_db = 10 * std::log10(a / an) - 10 * std::log10(1.0 / k_eff);
  return s;
}

// The fraction of minority dots whose two nearest minority neighbours (within
// 2.5 lambda) lie nearly opposite (150 degrees or more apart).
inline double worm_index(const Image &img, double g) {
  const bool ink_minority = g <= 0.5;
  const double gm = ink_minority ? g : 1 - g;
  const double lambda = 1 / std::sqrt(gm);
  const int radius = static_cast<int>(std::ceil(2.5 * lambda));
  const double r2max = 2.5 * lambda * 2.5 * lambda;
  auto minority = [&](long x, long y) { return (img.at(size_t(x), size_t(y)) > 0.5) == ink_minority; };
  size_t dots = 0, worms = 0;
  const long w = long(img.w), h = long(img.h);
  for (long y = radius; y < h - radius; ++y)
    for (long x = radius; x < w - radius; ++x) {
      if (!minority(x, y)) continue;
      double d1 = 1e30, d2 = 1e30;
      long v1x = 0, v1y = 0, v2x = 0, v2y = 0;
      for (long j = -radius; j <= radius; ++j)
        for (long i = -radius; i <= radius; ++i) {
          if ((i == 0 && j == 0) || !minority(x + i, y + j)) continue;
          const double d = double(i * i + j * j);
          if (d > r2max) continue;
          if (d < d1) {
            d2 = d1, v2x = v1x, v2y = v1y;
            d1 = d, v1x = i, v1y = j;
          } else if (d < d2) {
            d2 = d, v2x = i, v2y = j;
          }
        }
      if (d2 > r2max) continue;
      ++dots;
      const double c = (v1x * v2x + v1y * v2y) / std::sqrt(d1 * d2);
      if (c <= std::cos(150.0 * M_PI / 180.0)) ++worms;
    }
  return dots > 0 ? double(worms) / double(dots) : 0;
}

// Visual noise of a density map: its standard deviation after a Gaussian
// eye filter of sigma 1.5 px (600-720 dpi at reading distance), taken over
// the map less a 3-pixel border, the filter cut there.
inline double visual_noise(const Image &img) {
  constexpr int kR = 3;
  double w[2 * kR + 1], sum = 0;
  for (int i = -kR; i <= kR; ++i) sum += w[i + kR] = std::exp(-i * i / (2 * 1.5 * 1.5));
  for (double &x : w) x /= sum;
  const long W = long(img.w), H = long(img.h);
  std::vector<double> across(img.v.size(), 0.0);
  for (long y = 0; y < H; ++y)
    for (long x = kR; x < W - kR; ++x)
      for (int i = -kR; i <= kR; ++i) across[size_t(y * W + x)] += w[i + kR] * img.v[size_t(y * W + x + i)];
  double s1 = 0, s2 = 0, n = 0;
  for (long y = kR; y < H - kR; ++y)
    for (long x = kR; x < W - kR; ++x) {
      double b = 0;
      for (int j = -kR; j <= kR; ++j) b += w[j + kR] * across[size_t((y + j) * W + x)];
      s1 += b;
      s2 += b * b;
      n += 1;
    }
  const double m = s1 / n;
  return std::sqrt(std::fmax(0.0, s2 / n - m * m));
}

// The strongest line of the periodogram of a square image (side a power of
// two) between 1.5 bins and `max_bin`, as a fraction of the image's variance.
// A real image puts a line in a bin and its mirror; both are counted.
inline double strongest_line(const Image &img, double max_bin) {
  const size_t n = img.w;
  std::vector<Complex> a(n * n);
  const double m = img.mean();
  double var = 0;
  for (size_t i = 0; i < n * n; ++i) {
    a[i] = img.v[i] - m;
    var += (img.v[i] - m) * (img.v[i] - m);
  }
  fft2(a, n);
  // Parseval: the sum of |A|^2 over all bins is n^2 times the sum of squares.
  double best = 0;
  for (size_t y = 0; y < n; ++y)
    for (size_t x = 0; x < n; ++x) {
      const double u = x < n / 2 ? double(x) : double(x) - double(n);
      const double v = y < n / 2 ? double(y) : double(y) - double(n);
      const double r = std::sqrt(u * u + v * v);
      if (r <= 1.5 || r >= max_bin) continue;
      best = std::fmax(best, 2 * std::norm(a[y * n + x]) / (double(n * n) * var));
    }
  return best;
}

// Screens a flat patch of tone `v` (8 or 16 bits) and returns it as an image
// of level densities (0 ... 1), cropped by `margin` on every side.
inline Image flat_patch(ScreeningObject *o, uint32_t v, uint32_t side, uint32_t margin) {
  Image img;
  img.w = img.h = side - 2 * margin;
  img.v.resize(img.w * img.h);
  std::vector<uint8_t> in8(side);
  std::vector<uint16_t> in16(side);
  std::vector<uint8_t> out(o->outputBytes);
  const double full = o->inputBits == 16 ? 65535.0 : 255.0;
  std::vector<double> density_of_code(1u << (o->outputPlanes > 8 ? 8 : o->outputPlanes), 0.0);
  for (uint32_t l = 0; l < o->levels; ++l)
    if (o->dotCodes[l] < density_of_code.size()) density_of_code[o->dotCodes[l]] = o->densities[l] / full;
  for (uint32_t y = 0; y < side; ++y) {
    void *in;
    if (o->inputBits == 16) {
      for (auto &s : in16) s = static_cast<uint16_t>(v);
      in = in16.data();
    } else {
      std::memset(in8.data(), static_cast<int>(v), side);
      in = in8.data();
    }
    o->screenScanline(o, in, out.data(), side, y);
    if (y < margin || y >= side - margin) continue;
    for (uint32_t x = margin; x < side - margin; ++x) {
      uint32_t code = 0;
      for (uint32_t p = 0; p < o->outputPlanes; ++p)
        code |= ((out[p * o->bytesPerPlane + (x >> 3)] >> (7 - (x & 7))) & 1u) << p;
      img.v[(y - margin) * img.w + (x - margin)] = density_of_code[code];
    }
  }
  return img;
}

}  // namespace zt::test::halftone
