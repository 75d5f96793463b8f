#include <algorithm>
#include <cmath>
#include <numeric>
#include <type_traits>
#include <vector>

#include <tsuops/basic.h>
#include <tsuops/ctx_guard.h>

#include "frame/frame.h"
#include "kernels/basic/sort.h"
#include "kernels/basic/sort_select.h"

namespace infer_ops {

namespace {

namespace api = orvane::tsu::api;

template <class T>
inline constexpr bool is_half_v = std::is_same_v<T, float16> || std::is_same_v<T, bfloat16>;

// The count check of sort: m * n as one number, at least 1, below 2^31 on
// device types 1 and 2. A product that overflows fails as well.
int check_total(Context* ctx, long m, long n, long* total, frame::where at = frame::where::current()) {
    const bool overflow = __builtin_mul_overflow(m, n, total);
    const bool bounded = ctx->dev_type == 1 || ctx->dev_type == 2;
    if (!overflow && *total >= 1 && !(bounded && *total >= (1L << 31))) return SUCCESS;
    api::_log_invalid_shape(ctx, at.file_name(), static_cast<int>(at.line()), {*total});
    return STATUS_INVALID_ARGUMENT;
}

// -NaN, then every number, then +NaN.
inline int nan_rank(float v) { return std::isnan(v) ? (std::signbit(v) ? 0 : 2) : 1; }

// a ranks strictly below b. Numbers compare numerically, so -0 and +0 are
// equivalent, and so are two NaNs of one sign.
template <class K>
bool ranks_below(K a, K b) {
    if constexpr (std::is_same_v<K, float>) {
        const int ra = nan_rank(a), rb = nan_rank(b);
        return ra != rb ? ra < rb : (ra == 1 && a < b);
    } else {
        return a < b;
    }
}

// Keys in float for the half types, else in T; each row's columns sorted by
// the library's unstable sort, ties broken by column, so that equal keys
// keep their order in both directions.
template <class T, class I>
int cpu_wrapper(Context* ctx, const T* x, T* y, I* index, long m, long n, long total, bool descending) {
    using K = std::conditional_t<is_half_v<T>, float, T>;
    std::vector<K> keys(static_cast<std::size_t>(total));
    if (int st = frame::check_nested(ctx, cast<T, K>(ctx, x, keys.data(), total))) return st;
    if (m < 1) return SUCCESS;
    std::vector<I> idx(static_cast<std::size_t>(n));
    for (long r = 0; r < m; ++r) {
        const K* kr = keys.data() + r * n;
        std::iota(idx.begin(), idx.end(), I(0));
        std::sort(idx.begin(), idx.end(), [kr, descending](I a, I b) {
            const K ka = kr[a], kb = kr[b];
            if (descending ? ranks_below(kb, ka) : ranks_below(ka, kb)) return true;
            if (descending ? ranks_below(ka, kb) : ranks_below(kb, ka)) return false;
            return a < b;
        });
        for (long k = 0; k < n; ++k) {
            index[r * n + k] = idx[static_cast<std::size_t>(k)];
            y[r * n + k] = x[r * n + static_cast<long>(idx[static_cast<std::size_t>(k)])];
        }
    }
    return SUCCESS;
}

// The launch object of the radix kernel: its two ping-pong buffers from the
// fast pool first, then one launch whose runtime code comes back as it is.
// Only the form with 1 is reached.
template <class T, class I, int Enabled>
struct radix_sort_kernel_invoke {
    static int eval(Context* ctx, const T*, T*, I*, long, long, int) { return frame::unimplemented(ctx); }
};

template <class T, class I>
struct radix_sort_kernel_invoke<T, I, 1> {
    using V = std::conditional_t<std::is_same_v<I, long>, long long, int>;

    static int eval(Context* ctx, const T* x, T* y, I* index, long m, long n, int ascending_flag) {
        api::ctx_guard scratch(ctx);
        const auto count = static_cast<unsigned long>(m * n);
        T* key_tmp = scratch.alloc_l3_first<T>(count);
        if (int st = frame::check_scratch(ctx, key_tmp)) return st;
        I* index_tmp = scratch.alloc_l3_first<I>(count);
        if (int st = frame::check_scratch(ctx, index_tmp)) return st;
        const auto stub = ascending_flag != 0 ? &tsu3::infer_radix_sort_gm<T, V, 1, 0>::__device_stub__eval
                                              : &tsu3::infer_radix_sort_gm<T, V, 0, 0>::__device_stub__eval;
        return frame::cluster_launch(ctx).raw(stub, x, y, reinterpret_cast<V*>(index), key_tmp,
                                              reinterpret_cast<V*>(index_tmp), static_cast<long long>(m),
                                              static_cast<long long>(n), ascending_flag);
    }
};

// The half types have no radix kernel: their rows go through float scratch
// and two casts.
template <class T, class I>
int radix_route(Context* ctx, const T* x, T* y, I* index, long m, long n, long total, bool descending) {
    if constexpr (is_half_v<T>) {
        api::ctx_guard scratch(ctx);
        float* x_f = scratch.alloc_l3_first<float>(static_cast<unsigned long>(total));
        if (int st = frame::check_scratch(ctx, x_f)) return st;
        float* y_f = scratch.alloc_l3_first<float>(static_cast<unsigned long>(total));
        if (int st = frame::check_scratch(ctx, y_f)) return st;
        if (int st = frame::check_nested(ctx, cast<T, float>(ctx, x, x_f, total))) return st;
        const int code = radix_sort_kernel_invoke<float, I, 1>::eval(ctx, x_f, y_f, index, m, n, !descending);
        if (int st = frame::check_nested(ctx, code)) return st;
        return frame::check_nested(ctx, cast<float, T>(ctx, y_f, y, total));
    } else {
        const int code = radix_sort_kernel_invoke<T, I, 1>::eval(ctx, x, y, index, m, n, !descending);
        if (code == 0) return SUCCESS;
        const auto at = frame::where::current();
        api::_log_kernel_fail(ctx, at.file_name(), static_cast<int>(at.line()), code);
        return STATUS_KERNEL_FAILED;
    }
}

template <class T, class I>
int tsu3_wrapper(Context* ctx, const T* x, T* y, I* index, long m, long n, long total, bool descending) {
    switch (sort_select::select(n)) {
    case sort_select::Kernel::radix:
        return radix_route(ctx, x, y, index, m, n, total, descending);
    case sort_select::Kernel::large_n:
        return frame::cluster_launch(ctx)(&tsu3::__device_stub__infer_sort_large_n<T, I>, x, y, index, m, n,
                                          descending);
    case sort_select::Kernel::large_m:
        break;
    }
    return frame::cluster_launch(ctx)(&tsu3::__device_stub__infer_sort_large_m<T, I>, x, y, index, m, n, descending);
}

}  // namespace

template <typename T, typename I>
int sort(Context* ctx, const T* x, T* y, I* index, long m, long n, bool descending) {
    if (ctx == nullptr) return STATUS_INVALID_ARGUMENT;
    ContextStackGuard guard(ctx, "INFRA");
    frame::open<T, I>(guard, ctx, "sort", x, y, index, m, n, descending);
    long total = 0;
    if (int st = check_total(ctx, m, n, &total)) return st;
    if (int st = frame::input(guard, ctx, "x", x, total)) return st;
    if (int st = frame::output(guard, ctx, "y", y, total)) return st;
    if (int st = frame::output(guard, ctx, "index", index, total)) return st;
    return frame::dispatch(
        ctx, [&] { return cpu_wrapper(ctx, x, y, index, m, n, total, descending); },
        [&] { return tsu3_wrapper(ctx, x, y, index, m, n, total, descending); });
}

#define TSUOPS_SORT(T)                                                              \
    template int sort<T, int>(Context*, const T*, T*, int*, long, long, bool);     \
    template int sort<T, long>(Context*, const T*, T*, long*, long, long, bool);
TSUOPS_SORT(float)
TSUOPS_SORT(float16)
TSUOPS_SORT(bfloat16)
TSUOPS_SORT(int)
TSUOPS_SORT(long)
#undef TSUOPS_SORT

}  // namespace infer_ops
