#include "analysis/OnsetCurve.h"

#include <algorithm>
#include <array>
#include <cmath>

namespace velquin {

void detrend(std::span<const float> x, size_t half, std::vector<double>& out) {
    const size_t n = x.size();
    out.resize(n);
    double windowSum = 0;
    size_t lo = 0, end = 0;  // the window is [lo, end)
    for (size_t i = 0; i < n; ++i) {
        const size_t wantLo = i > half ? i - half : 0;
        const size_t wantEnd = std::min(i + half + 1, n);
        while (end < wantEnd) windowSum += x[end++];
        while (lo < wantLo) windowSum -= x[lo++];
        out[i] = std::max(0.0, x[i] - windowSum / (end - lo));
    }
}

void blur(std::span<const double> d, double widthFrames, std::vector<double>& out) {
    std::array<double, 9> g{};
    double gsum = 0;
    for (size_t t = 0; t < g.size(); ++t) {
        const int k = int(t) - 4;
        g[t] = std::exp(-double(k * k) / (2.0 * widthFrames * widthFrames));
        gsum += g[t];
    }
    for (double& v : g) v /= gsum;
    const size_t n = d.size();
    out.resize(n);
    for (size_t i = 0; i < n; ++i) {
        double acc = 0;
        for (size_t t = 0; t < g.size(); ++t)
            if (i + t >= 4 && i + t - 4 < n) acc += g[t] * d[i + t - 4];
        out[i] = acc;
    }
}

bool standardise(std::span<double> e) {
    double mean = 0;
    for (double v : e) mean += v;
    mean /= e.size();
    double variance = 0;
    for (double& v : e) {
        v -= mean;
        variance += v * v;
    }
    variance /= e.size();
    if (variance <= 1e-12) return false;
    const double deviation = std::sqrt(variance);
    for (double& v : e) v /= deviation;
    return true;
}

// Four lags at a time: each sum is still added up in its own order, but four independent chains of
// additions keep the pipeline full where one would wait on every add.
void autocorrelate(std::span<const double> e, size_t maxLag, size_t size, std::vector<double>& acf) {
    acf.assign(size, 0.0);
    const size_t n = e.size();
    size_t lag = 1;
    for (; lag + 3 <= maxLag && lag + 3 < n; lag += 4) {
        double acc[4] = {0, 0, 0, 0};
        size_t i = 0;
        for (; i + lag + 3 < n; ++i)
            for (size_t k = 0; k < 4; ++k) acc[k] += e[i] * e[i + lag + k];
        for (size_t k = 0; k < 3; ++k)
            for (size_t j = i; j + lag + k < n; ++j) acc[k] += e[j] * e[j + lag + k];
        for (size_t k = 0; k < 4; ++k) acf[lag + k] = acc[k] / static_cast<double>(n - lag - k);
    }
    for (; lag <= maxLag; ++lag) {
        double acc = 0;
        for (size_t i = 0; i + lag < n; ++i) acc += e[i] * e[i + lag];
        acf[lag] = acc / static_cast<double>(n - lag);
    }
}

}  // namespace velquin
