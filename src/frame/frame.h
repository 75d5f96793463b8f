// The pieces of the operator frame. Each operator's entry function runs them
// in order; every check reports the caller's own source position.
#pragma once

#include <cstdio>
#include <initializer_list>
#include <source_location>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <tsuapi/tsuapi.h>
#include <tsuops/types.h>
#include <tsuops/ctx_guard.h>
#include <tsuops/vector_param.h>
#include <tsurt/tsurt.h>

#include "memory_region.h"
#include "param_dump.h"

// Weak, so that the library also links against a platform without the query.
namespace orvane::tsu::api {
[[gnu::weak]] bool _log_memory_wanted(Context* ctx) noexcept;
}  // namespace orvane::tsu::api

namespace infer_ops {
using orvane::tsu::api::Context;
using orvane::tsu::api::ContextStackGuard;
}  // namespace infer_ops

namespace infer_ops::frame {

namespace api = orvane::tsu::api;
using where = std::source_location;

// Tracing is on when a device context, or a host context with one of bits
// 16-19, has any of bits 0-15 or 20-23 set.
inline bool debug_active(const Context* ctx) {
    const std::uint32_t f = ctx->debug_flags;
    return ((f & 0xf0000u) != 0 || ctx->dev_type != 0) && (f & 0xf0ffffu) != 0;
}

// ---- profile, dump and trace ------------------------------------------------------------
template <typename T> inline constexpr const char* type_name = "unknown";
template <> inline constexpr const char* type_name<float> = "float";
template <> inline constexpr const char* type_name<float16> = "float16";
template <> inline constexpr const char* type_name<bfloat16> = "bfloat16";
template <> inline constexpr const char* type_name<double> = "double";
template <> inline constexpr const char* type_name<int> = "int";
template <> inline constexpr const char* type_name<long> = "int64_t";
template <> inline constexpr const char* type_name<short> = "int16_t";
template <> inline constexpr const char* type_name<signed char> = "int8_t";
template <> inline constexpr const char* type_name<unsigned char> = "uint8_t";
template <> inline constexpr const char* type_name<bool> = "bool";
template <> inline constexpr const char* type_name<int4_t> = "int4_t";

inline std::string format(const char* fmt, auto v) {
    char buf[64];
    std::snprintf(buf, sizeof buf, fmt, v);
    return buf;
}

// One entry of the parameter record for an argument of the given kind.
template <typename T>
std::string dump_text(Context* ctx, const T& v) {
    if constexpr (std::is_same_v<T, bool>) return v ? "true" : "false";
    else if constexpr (std::is_same_v<T, float>) return api::ornet_param_to_str<float>(ctx, v);
    else if constexpr (std::is_same_v<T, double> || std::is_same_v<T, float16> || std::is_same_v<T, bfloat16>)
        return format("%f", static_cast<double>(v));
    else if constexpr (std::is_same_v<T, long>) return format("%ld", v);
    else if constexpr (std::is_same_v<T, unsigned long>) return format("%lu", v);
    else if constexpr (std::is_same_v<T, long long>) return format("%lld", v);
    else if constexpr (std::is_integral_v<T>) return format("%d", static_cast<int>(v));
    else if constexpr (std::is_same_v<T, std::vector<long>> || std::is_same_v<T, std::vector<int>>)
        return api::ornet_param_to_str(ctx, v);
    else static_assert(sizeof(T) == 0, "no dump text for this argument type");
}

template <typename T>
void dump_one(ContextStackGuard& g, Context* ctx, const T& v) {
    if constexpr (std::is_pointer_v<T>) {
        if constexpr (std::is_same_v<std::remove_cv_t<std::remove_pointer_t<T>>, char>)
            g.info.add_param(ctx, const_cast<char*>(v));
        else
            g.info.add_param(ctx, v);
    } else if constexpr (std::is_same_v<T, std::string>) {
        g.info.add_param(ctx, v);
    } else {
        g.info.params.push_back(dump_text(ctx, v));
    }
}

template <typename T>
void dump_one(ContextStackGuard& g, Context* ctx, const std::vector<T*>& v) {
    g.info.add_param(ctx, v);
}

template <typename T>
void dump_one(ContextStackGuard& g, Context* ctx, const api::VectorParam<T>& v) {
    g.info.params.push_back(api::ornet_param_to_str(ctx, v));
}

// Profile, dump and trace phases: the name and type strings, one entry per
// argument and the L3 size last, then the trace. Nothing when the gate is off.
template <typename... Ts, typename... Args>
void open(ContextStackGuard& g, Context* ctx, const char* name, const Args&... args) {
    if (!debug_active(ctx)) return;
    g.profile(name);
    g.info.name = name;
    (g.info.dtypes.emplace_back(type_name<Ts>), ...);
    (dump_one(g, ctx, args), ...);
    g.info.params.push_back(format("%lu", static_cast<unsigned long>(ctx->l3_size)));
    g.trace();
}

// ---- checks ---------------------------------------------------------------------------------
enum class Rel { EQ, NE, LT, LE, GT, GE };

inline const char* rel_text(Rel r) {
    constexpr const char* t[] = {"==", "!=", "<", "<=", ">", ">="};
    return t[static_cast<int>(r)];
}

template <typename T>
std::string check_text(const T& v) {
    if constexpr (std::is_same_v<T, long>) return format("%ld", v);
    else if constexpr (std::is_same_v<T, unsigned long>) return format("%lu", v);
    else if constexpr (std::is_same_v<T, long long>) return format("%lld", v);
    else if constexpr (std::is_floating_point_v<T>) return format("%f", static_cast<double>(v));
    else if constexpr (std::is_integral_v<T>) return format("%d", static_cast<int>(v));
    else if constexpr (std::is_same_v<T, float16> || std::is_same_v<T, bfloat16>)
        return format("%f", static_cast<double>(static_cast<float>(v)));
    else if constexpr (std::is_pointer_v<T> && !std::is_same_v<std::remove_cv_t<std::remove_pointer_t<T>>, char>)
        return api::__wrapper_tostring(v);  // tensors compared by address, e.g. an in-place call refused
    else return std::string(v);
}

template <typename L, typename R>
bool holds(const L& l, Rel rel, const R& r) {
    if constexpr (std::is_integral_v<L> && std::is_integral_v<R> && !std::is_same_v<L, bool>) {
        switch (rel) {
        case Rel::EQ: return std::cmp_equal(l, r);
        case Rel::NE: return std::cmp_not_equal(l, r);
        case Rel::LT: return std::cmp_less(l, r);
        case Rel::LE: return std::cmp_less_equal(l, r);
        case Rel::GT: return std::cmp_greater(l, r);
        case Rel::GE: return std::cmp_greater_equal(l, r);
        }
        return false;
    } else {
        switch (rel) {
        case Rel::EQ: return l == r;
        case Rel::NE: return l != r;
        case Rel::LT: return l < r;
        case Rel::LE: return l <= r;
        case Rel::GT: return l > r;
        case Rel::GE: return l >= r;
        }
        return false;
    }
}

// Compare check: 0 if `lhs rel rhs` holds, else the log and status 1.
template <typename L, typename R>
int check(Context* ctx, const L& lhs, Rel rel, const R& rhs, where at = where::current()) {
    if (holds(lhs, rel, rhs)) return SUCCESS;
    api::_log_compare_fail(ctx, at.file_name(), static_cast<int>(at.line()), check_text(lhs), rel_text(rel),
                           check_text(rhs));
    return STATUS_INVALID_ARGUMENT;
}

// Compare check of a word argument (a layout, a table style) that must be
// one of `words`: on failure the log reads the text given, "==", and the
// words joined by " or ".
inline int check_word(Context* ctx, const std::string& text, std::initializer_list<const char*> words,
                      where at = where::current()) {
    std::string expected;
    for (const char* w : words) {
        if (text == w) return SUCCESS;
        expected += (expected.empty() ? "" : " or ") + std::string(w);
    }
    api::_log_compare_fail(ctx, at.file_name(), static_cast<int>(at.line()), text, "==", expected);
    return STATUS_INVALID_ARGUMENT;
}

// Pointer check: status 1 on arguments, 3 on scratch.
template <typename T>
int check_ptr(Context* ctx, T* p, int status = STATUS_INVALID_ARGUMENT, where at = where::current()) {
    if (p != nullptr) return SUCCESS;
    api::_log_compare_fail(ctx, at.file_name(), static_cast<int>(at.line()), api::__wrapper_tostring(p), "!=",
                           "nullptr");
    return status;
}

template <typename T>
int check_scratch(Context* ctx, T* p, where at = where::current()) {
    return check_ptr(ctx, p, STATUS_NO_WORKSPACE, at);
}

// Shape check; on success *count is the element count.
int check_shape(Context* ctx, const std::vector<long>& shape, long* count = nullptr, where at = where::current());

// Dimension check of scalar sizes: every one at least 1.
int check_dims(Context* ctx, std::initializer_list<long> dims, where at = where::current());

// Nested-status check after an inner operation.
int check_nested(Context* ctx, int ret, where at = where::current());

// ---- the region step --------------------------------------------------------------------------
inline bool api_precision(Context* ctx, ContextStackGuard& g) {
    return orvane::tsu::api_infrastructure::should_check_precision(ctx, g.info.name);
}

// Whether the platform has a use for the record of a region that carries no
// detail. A platform that cannot say gets every record.
inline bool region_record_wanted(Context* ctx) {
    return &api::_log_memory_wanted == nullptr || api::_log_memory_wanted(ctx);
}

// The region step. A valid region that nobody records (no trace, no
// precision check, no log sink) is only tested: the region object, its
// record and the platform call would be built for nobody. Everything else,
// failures included, takes the whole step.
template <typename T>
int region(ContextStackGuard& g, Context* ctx, const char* name, const T* ptr, long len, bool is_input,
           where at = where::current()) {
    using E = std::remove_cv_t<T>;
    const bool precision = api_precision(ctx, g);
    const bool want_detail = debug_active(ctx) || precision;
    if (!want_detail && !region_record_wanted(ctx) && api::dense_region_valid<E>(ctx, ptr, len)) return SUCCESS;
    api::memory_region r(is_input, ptr, len, api::debug_checksum_level(ctx));
    r.init_detail<E>(want_detail, api::_get_ctx_opcount(ctx), at.file_name(), static_cast<int>(at.line()), name,
                     api::_get_checksum_accelerate_flag(ctx), nullptr);
    if (!r.is_valid<E>(ctx)) {
        api::_log_invalid_memory(ctx, r);
        return STATUS_INVALID_ARGUMENT;
    }
    api::_log_memory(g, ctx, r);
    if (precision) g.recorded_regions.emplace(name, r);
    return SUCCESS;
}

template <typename T>
int input(ContextStackGuard& g, Context* ctx, const char* name, const T* ptr, long len, where at = where::current()) {
    return region(g, ctx, name, ptr, len, true, at);
}

template <typename T>
int output(ContextStackGuard& g, Context* ctx, const char* name, const T* ptr, long len, where at = where::current()) {
    return region(g, ctx, name, ptr, len, false, at);
}

// The region step of a nullable tensor: run only when the pointer is set.
template <typename T>
int optional_input(ContextStackGuard& g, Context* ctx, const char* name, const T* ptr, long len,
                   where at = where::current()) {
    return ptr ? region(g, ctx, name, ptr, len, true, at) : SUCCESS;
}

template <typename T>
int optional_output(ContextStackGuard& g, Context* ctx, const char* name, const T* ptr, long len,
                    where at = where::current()) {
    return ptr ? region(g, ctx, name, ptr, len, false, at) : SUCCESS;
}

// The device copy of a length-offset parameter: to_tsu into the call's
// scratch, the pointer check (status 1, not 3), and the region "<local>.tsu"
// over the copy, recorded as an output. `local` names the operator's local
// that holds the copy, e.g. "x_lods_tsu". A host context has no device copy
// and nothing to check: the reference path reads the host array alone.
template <typename T>
int device_copy(ContextStackGuard& g, Context* ctx, api::ctx_guard& scratch, const api::VectorParam<T>& param,
                const char* local, api::VectorParam<T>& out, where at = where::current()) {
    out = param.to_tsu(scratch);
    if (ctx->dev_type == 0) return SUCCESS;
    if (int st = check_ptr(ctx, out.tsu, STATUS_INVALID_ARGUMENT, at)) return st;
    const std::string name = std::string(local) + ".tsu";
    return region(g, ctx, name.c_str(), out.tsu, out.len, false, at);
}

// ---- dispatch and launch ------------------------------------------------------------------------
int unimplemented(Context* ctx, where at = where::current());

// A non-zero status of an inner step reported as a kernel failure: the log
// with that code, status 2.
inline int kernel_fail(Context* ctx, int code, where at = where::current()) {
    api::_log_kernel_fail(ctx, at.file_name(), static_cast<int>(at.line()), code);
    return STATUS_KERNEL_FAILED;
}

enum class Device { tsu3, tsu2or3 };

// Device type 3 (and 2 for tsu2or3) takes the device path, 0 the reference
// path; anything else is unimplemented.
template <typename Host, typename Dev>
int dispatch(Context* ctx, Host&& host, Dev&& device, Device accepted = Device::tsu3, where at = where::current()) {
    const std::uint32_t t = ctx->dev_type;
    if (t == 3 || (t == 2 && accepted == Device::tsu2or3)) return device();
    if (t == 0) return host();
    return unimplemented(ctx, at);
}

// One kernel launch: configuration, then the stub. A failure at either step
// is logged at the launch site and gives status 2.
class launch {
public:
    launch(Context* ctx, int nclusters, int ncores, where at = where::current())
        : ctx_(ctx), nclusters_(nclusters), ncores_(ncores), at_(at) {}

    template <typename... P, typename... A>
    int operator()(int (*stub)(P...), A&&... args) const {
        const int code = raw(stub, std::forward<A>(args)...);
        if (code == 0) return SUCCESS;
        api::_log_kernel_fail(ctx_, at_.file_name(), static_cast<int>(at_.line()), code);
        return STATUS_KERNEL_FAILED;
    }

    // The runtime's own code, unlogged: the routers' convention.
    template <typename... P, typename... A>
    int raw(int (*stub)(P...), A&&... args) const {
        const int code = tsu_launch_config(nclusters_, ncores_, ctx_->stream);
        if (code != 0) return code;
        return stub(static_cast<P>(std::forward<A>(args))...);
    }

private:
    Context* ctx_;
    int nclusters_;
    int ncores_;
    where at_;
};

// The usual shapes: every cluster with 64 cores, or the GMX engine with 8.
inline launch cluster_launch(Context* ctx, where at = where::current()) { return launch(ctx, ctx->ncluster, 64, at); }
inline launch gmx_launch(Context* ctx, where at = where::current()) { return launch(ctx, ctx->ngmx, 8, at); }

}  // namespace infer_ops::frame
