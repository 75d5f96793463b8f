// The order-free parts of a pass run over kLanes values at once, each lane
// keeping its own least, greatest and counts, merged at the end; the sums
// stay one addition at a time in column order, and skip at once a group of
// kLanes values of which none is above p0 or p1, which is most of a row
// once the search has left the small values behind. A value below a bound
// adds +0.0f instead of branching: a sum that starts at +0 is never -0, so
// adding +0 leaves it as it is.
#pragma GCC optimize("fp-contract=off")

#include "kernels/sampler/renorm_search.h"

#include <cmath>

namespace tsuops::kernels::sampler {

namespace {

constexpr int kLanes = 16;

}  // namespace

float below(double t) {
    float f = static_cast<float>(t);
    if (static_cast<double>(f) > t) f = std::nextafter(f, -INFINITY);
    return f;
}

__attribute__((target_clones("avx2", "default"))) void tally_counts(const float* v, long len, const bounds& b,
                                                                    tally& acc) {
    const float low = b.low, high = b.high, p0 = b.p0, p1 = b.p1;
    float mn[kLanes], mx[kLanes];
    int c0[kLanes], c1[kLanes];
    for (int l = 0; l < kLanes; ++l) {
        mn[l] = acc.min_gt_low;
        mx[l] = acc.max_le_high;
        c0[l] = c1[l] = 0;
    }
    long i = 0;
    for (; i + kLanes <= len; i += kLanes) {
        for (int l = 0; l < kLanes; ++l) {
            const float x = v[i + l];
            mn[l] = (x > low) & (x < mn[l]) ? x : mn[l];
            mx[l] = (x <= high) & (x > mx[l]) ? x : mx[l];
            c0[l] += x > p0;
            c1[l] += x > p1;
        }
    }
    for (; i < len; ++i) {
        const float x = v[i];
        mn[0] = (x > low) & (x < mn[0]) ? x : mn[0];
        mx[0] = (x <= high) & (x > mx[0]) ? x : mx[0];
        c0[0] += x > p0;
        c1[0] += x > p1;
    }
    for (int l = 0; l < kLanes; ++l) {
        if (mn[l] < acc.min_gt_low) acc.min_gt_low = mn[l];
        if (mx[l] > acc.max_le_high) acc.max_le_high = mx[l];
        acc.c0 += c0[l];
        acc.c1 += c1[l];
    }
}

__attribute__((target_clones("avx2", "default"))) void tally_sums(const float* v, long len, const bounds& b,
                                                                  tally& acc) {
    const float p0 = b.p0, p1 = b.p1;
    float s0 = acc.sum0, s1 = acc.sum1;
    for (long i = 0; i < len; i += kLanes) {
        const long n = len - i < kLanes ? len - i : kLanes;
        if (n == kLanes) {
            bool any = false;
            for (int l = 0; l < kLanes; ++l) any |= (v[i + l] > p0) | (v[i + l] > p1);
            if (!any) continue;
        }
        for (long j = i; j < i + n; ++j) {
            s0 += v[j] > p0 ? v[j] : 0.0f;
            s1 += v[j] > p1 ? v[j] : 0.0f;
        }
    }
    acc.sum0 = s0;
    acc.sum1 = s1;
}

__attribute__((target_clones("avx2", "default"))) float sum_above(const float* v, long len, float low, float sum) {
    for (long i = 0; i < len; i += kLanes) {
        const long n = len - i < kLanes ? len - i : kLanes;
        if (n == kLanes) {
            bool any = false;
            for (int l = 0; l < kLanes; ++l) any |= v[i + l] > low;
            if (!any) continue;
        }
        for (long j = i; j < i + n; ++j) sum += v[j] > low ? v[j] : 0.0f;
    }
    return sum;
}

__attribute__((target_clones("avx2", "default"))) float max_of(const float* v, long len, float start) {
    float mx[kLanes];
    for (int l = 0; l < kLanes; ++l) mx[l] = start;
    long i = 0;
    for (; i + kLanes <= len; i += kLanes) {
        for (int l = 0; l < kLanes; ++l) mx[l] = v[i + l] > mx[l] ? v[i + l] : mx[l];
    }
    for (; i < len; ++i) mx[0] = v[i] > mx[0] ? v[i] : mx[0];
    float out = start;
    for (int l = 0; l < kLanes; ++l) out = mx[l] > out ? mx[l] : out;
    return out;
}

}  // namespace tsuops::kernels::sampler
