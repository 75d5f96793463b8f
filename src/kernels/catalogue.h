// The kernel catalogue: from one declaration per kernel family and one line
// per instance, the launch stub, the host entry and the descriptor of every
// instance are generated here.
//
// A family header declares the family as an X-macro and expands the
// declaration:
//
//   #define TSU_FAMILY_infer_constant(X) X(infer_constant, TSU_ENGINE_CLUSTER,
//       (typename T), (T), (char*, x), (long, len), (T, value))
//   TSU_KERNEL_DECLARE(infer_constant)
//
// and the family's kernel source defines the body, then
//
//   TSU_KERNEL_DEFINE(infer_constant)
//   TSU_KERNEL_INSTANCE(infer_constant, float)
//   TSU_KERNEL_INSTANCE(infer_constant, float16)
//
// The stub `tsu3::__device_stub__<kernel><T...>` has the kernel's signature,
// packs the arguments by the slot rule and queues the descriptor.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <type_traits>
#include <utility>

#include <tsurt/emulator.h>
#include <tsurt/tsurt.h>

#include <tsuops/types.h>

// ---- preprocessor helpers -----------------------------------------------------------------
#define TSU_PP_CAT(a, b) TSU_PP_CAT_I(a, b)
#define TSU_PP_CAT_I(a, b) a##b
#define TSU_PP_UNPAREN(...) __VA_ARGS__
#define TSU_PP_FOR_EACH(M, ...) TSU_PP_CAT(TSU_PP_FE_, TSU_PP_NARGS(__VA_ARGS__))(M, __VA_ARGS__)
#define TSU_PP_DECL(type, name) type name
#define TSU_PP_TYPE(type, name) type
#define TSU_PP_NAME(type, name) name
#define TSU_PP_NARGS(...) TSU_PP_NARGS_I(__VA_ARGS__, 40, 39, 38, 37, 36, 35, 34, 33, 32, 31, 30, 29, 28, 27, 26, 25, 24, 23, 22, 21, 20, 19, 18, 17, 16, 15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1)
#define TSU_PP_NARGS_I(_1, _2, _3, _4, _5, _6, _7, _8, _9, _10, _11, _12, _13, _14, _15, _16, _17, _18, _19, _20, _21, _22, _23, _24, _25, _26, _27, _28, _29, _30, _31, _32, _33, _34, _35, _36, _37, _38, _39, _40, N, ...) N
#define TSU_PP_FE_1(M, a) M a
#define TSU_PP_FE_2(M, a, ...) M a, TSU_PP_FE_1(M, __VA_ARGS__)
#define TSU_PP_FE_3(M, a, ...) M a, TSU_PP_FE_2(M, __VA_ARGS__)
#define TSU_PP_FE_4(M, a, ...) M a, TSU_PP_FE_3(M, __VA_ARGS__)
#define TSU_PP_FE_5(M, a, ...) M a, TSU_PP_FE_4(M, __VA_ARGS__)
#define TSU_PP_FE_6(M, a, ...) M a, TSU_PP_FE_5(M, __VA_ARGS__)
#define TSU_PP_FE_7(M, a, ...) M a, TSU_PP_FE_6(M, __VA_ARGS__)
#define TSU_PP_FE_8(M, a, ...) M a, TSU_PP_FE_7(M, __VA_ARGS__)
#define TSU_PP_FE_9(M, a, ...) M a, TSU_PP_FE_8(M, __VA_ARGS__)
#define TSU_PP_FE_10(M, a, ...) M a, TSU_PP_FE_9(M, __VA_ARGS__)
#define TSU_PP_FE_11(M, a, ...) M a, TSU_PP_FE_10(M, __VA_ARGS__)
#define TSU_PP_FE_12(M, a, ...) M a, TSU_PP_FE_11(M, __VA_ARGS__)
#define TSU_PP_FE_13(M, a, ...) M a, TSU_PP_FE_12(M, __VA_ARGS__)
#define TSU_PP_FE_14(M, a, ...) M a, TSU_PP_FE_13(M, __VA_ARGS__)
#define TSU_PP_FE_15(M, a, ...) M a, TSU_PP_FE_14(M, __VA_ARGS__)
#define TSU_PP_FE_16(M, a, ...) M a, TSU_PP_FE_15(M, __VA_ARGS__)
#define TSU_PP_FE_17(M, a, ...) M a, TSU_PP_FE_16(M, __VA_ARGS__)
#define TSU_PP_FE_18(M, a, ...) M a, TSU_PP_FE_17(M, __VA_ARGS__)
#define TSU_PP_FE_19(M, a, ...) M a, TSU_PP_FE_18(M, __VA_ARGS__)
#define TSU_PP_FE_20(M, a, ...) M a, TSU_PP_FE_19(M, __VA_ARGS__)
#define TSU_PP_FE_21(M, a, ...) M a, TSU_PP_FE_20(M, __VA_ARGS__)
#define TSU_PP_FE_22(M, a, ...) M a, TSU_PP_FE_21(M, __VA_ARGS__)
#define TSU_PP_FE_23(M, a, ...) M a, TSU_PP_FE_22(M, __VA_ARGS__)
#define TSU_PP_FE_24(M, a, ...) M a, TSU_PP_FE_23(M, __VA_ARGS__)
#define TSU_PP_FE_25(M, a, ...) M a, TSU_PP_FE_24(M, __VA_ARGS__)
#define TSU_PP_FE_26(M, a, ...) M a, TSU_PP_FE_25(M, __VA_ARGS__)
#define TSU_PP_FE_27(M, a, ...) M a, TSU_PP_FE_26(M, __VA_ARGS__)
#define TSU_PP_FE_28(M, a, ...) M a, TSU_PP_FE_27(M, __VA_ARGS__)
#define TSU_PP_FE_29(M, a, ...) M a, TSU_PP_FE_28(M, __VA_ARGS__)
#define TSU_PP_FE_30(M, a, ...) M a, TSU_PP_FE_29(M, __VA_ARGS__)
#define TSU_PP_FE_31(M, a, ...) M a, TSU_PP_FE_30(M, __VA_ARGS__)
#define TSU_PP_FE_32(M, a, ...) M a, TSU_PP_FE_31(M, __VA_ARGS__)
#define TSU_PP_FE_33(M, a, ...) M a, TSU_PP_FE_32(M, __VA_ARGS__)
#define TSU_PP_FE_34(M, a, ...) M a, TSU_PP_FE_33(M, __VA_ARGS__)
#define TSU_PP_FE_35(M, a, ...) M a, TSU_PP_FE_34(M, __VA_ARGS__)
#define TSU_PP_FE_36(M, a, ...) M a, TSU_PP_FE_35(M, __VA_ARGS__)
#define TSU_PP_FE_37(M, a, ...) M a, TSU_PP_FE_36(M, __VA_ARGS__)
#define TSU_PP_FE_38(M, a, ...) M a, TSU_PP_FE_37(M, __VA_ARGS__)
#define TSU_PP_FE_39(M, a, ...) M a, TSU_PP_FE_38(M, __VA_ARGS__)
#define TSU_PP_FE_40(M, a, ...) M a, TSU_PP_FE_39(M, __VA_ARGS__)
#define TSU_ENGINE_CLUSTER 0
#define TSU_ENGINE_GMX 1

namespace tsuops::kernels {

// Result of the last tsu_launch_async of this thread.
extern thread_local int g_tsu_launch_error;

// ---- the argument block -----------------------------------------------------------------------
// 8-byte arguments take 8-byte slots, every smaller one a 4-byte slot.
template <typename A>
inline constexpr std::size_t slot_align = sizeof(A) == 8 ? 8 : 4;

template <typename... A>
inline constexpr std::array<std::size_t, sizeof...(A)> slot_offsets = [] {
    std::array<std::size_t, sizeof...(A)> off{};
    std::size_t end = 0;
    std::size_t i = 0;
    ((off[i] = (end + slot_align<A> - 1) / slot_align<A> * slot_align<A>, end = off[i] + sizeof(A), ++i), ...);
    return off;
}();

template <typename A>
inline constexpr bool kernel_argument =
    std::is_trivially_copyable_v<A> && (sizeof(A) == 1 || sizeof(A) == 2 || sizeof(A) == 4 || sizeof(A) == 8);

template <typename A>
A load_arg(const unsigned char* p) {
    A v;
    std::memcpy(static_cast<void*>(&v), p, sizeof(A));
    return v;
}

// Writes which kernel threw, and what, to standard error and terminates.
[[noreturn]] void kernel_threw(const void* body) noexcept;

template <auto Kernel>
struct kernel_fn;

template <typename... A, void (*Kernel)(A...)>
struct kernel_fn<Kernel> {
    static_assert((kernel_argument<A> && ...), "kernel arguments are pointers and plain scalars");
    static constexpr const auto& offsets = slot_offsets<A...>;

    // Host entry of the descriptor: one core's call of the body. A body
    // that throws ends the process, naming itself: the other cores of the
    // grid are still running on the launch's state.
    static void entry(const unsigned char* args) noexcept {
        try {
            call(args, std::index_sequence_for<A...>{});
        } catch (...) {
            kernel_threw(reinterpret_cast<const void*>(Kernel));
        }
    }

    // Sets every argument with its true size at its slot, stopping at the
    // first failure, then queues the descriptor.
    static int launch(tsuemu::KernelDescriptor* desc, A... a) {
        int code = 0;
        std::size_t i = 0;
        auto set = [&](const auto& v) {
            const std::size_t off = offsets[i++];
            if (code == 0) code = tsu_launch_argument_set(&v, sizeof(v), off);
        };
        (set(a), ...);
        if (code != 0) return code;
        g_tsu_launch_error = tsu_launch_async(desc);
        return g_tsu_launch_error;
    }

private:
    template <std::size_t... I>
    static void call(const unsigned char* args, std::index_sequence<I...>) {
        Kernel(load_arg<A>(args + offsets[I])...);
    }
};

template <auto Kernel>
struct tag {};

// Fills in the name, size and hash of a descriptor from its body's symbol.
bool name_descriptor(tsuemu::KernelDescriptor* desc, const void* body);

// Every descriptor of this library, in section order.
std::span<tsuemu::KernelDescriptor> catalogue();

}  // namespace tsuops::kernels

#define TSU_KERNEL_DECLARE(family) TSU_FAMILY_##family(TSU_KERNEL_DECLARE_)
#define TSU_KERNEL_DECLARE_(name, engine, tparams, targs, ...)          \
    TSU_KERNEL_TEMPLATES(name, tparams, __VA_ARGS__)                    \
    namespace tsuops::kernels {                                         \
    inline constexpr std::uint64_t engine_of_##name = engine;           \
    }

// A further signature of a kernel name already declared (template overloads
// of one family): the same declarations without a second engine constant.
#define TSU_KERNEL_DECLARE_MORE(family) TSU_FAMILY_##family(TSU_KERNEL_DECLARE_MORE_)
#define TSU_KERNEL_DECLARE_MORE_(name, engine, tparams, targs, ...) \
    TSU_KERNEL_TEMPLATES(name, tparams, __VA_ARGS__)                \
    static_assert(::tsuops::kernels::engine_of_##name == (engine), "one engine per kernel family");

// The body template and its launch stub.
#define TSU_KERNEL_TEMPLATES(name, tparams, ...)                                  \
    namespace tsu3 {                                                              \
    template <TSU_PP_UNPAREN tparams>                                             \
    void name(TSU_PP_FOR_EACH(TSU_PP_DECL, __VA_ARGS__));                         \
    template <TSU_PP_UNPAREN tparams>                                             \
    int __device_stub__##name(TSU_PP_FOR_EACH(TSU_PP_DECL, __VA_ARGS__));         \
    }

#define TSU_KERNEL_DEFINE(family) TSU_FAMILY_##family(TSU_KERNEL_DEFINE_)
#define TSU_KERNEL_DEFINE_(name, engine, tparams, targs, ...)                                          \
    namespace tsu3 {                                                                                   \
    template <TSU_PP_UNPAREN tparams>                                                                  \
    int __device_stub__##name(TSU_PP_FOR_EACH(TSU_PP_DECL, __VA_ARGS__)) {                             \
        using fn = ::tsuops::kernels::kernel_fn<&name<TSU_PP_UNPAREN targs>>;                          \
        return fn::launch(descriptor_for(::tsuops::kernels::tag<&name<TSU_PP_UNPAREN targs>>{}),       \
                          TSU_PP_FOR_EACH(TSU_PP_NAME, __VA_ARGS__));                                  \
    }                                                                                                  \
    }

// GCC drops section attributes from template instances, so each descriptor is
// a plain internal object at namespace scope.
#define TSU_KERNEL_INSTANCE(name, ...) TSU_KERNEL_INSTANCE_I(__COUNTER__, name, __VA_ARGS__)
#define TSU_KERNEL_INSTANCE_I(id, name, ...) TSU_KERNEL_INSTANCE_II(id, name, __VA_ARGS__)
#define TSU_KERNEL_INSTANCE_II(id, name, ...)                                                                \
    TSU_KERNEL_DESCRIPTOR(id, name, (&::tsu3::name<__VA_ARGS__>))                                            \
    template decltype(::tsu3::__device_stub__##name<__VA_ARGS__>) tsu3::__device_stub__##name<__VA_ARGS__>;

// The descriptor of one kernel, the lookup of its stub, and its name.
#define TSU_KERNEL_DESCRIPTOR(id, name, kernel)                                                                 \
    namespace tsuops::kernels {                                                                                 \
    __attribute__((section("TSU_KERNEL"), used, aligned(64))) static tsuemu::KernelDescriptor tsu_kernel_##id = { \
        engine_of_##name, reinterpret_cast<std::uint64_t>(&kernel_fn<kernel>::entry), 0, 0, 0, 0, 0, 0};      \
    [[maybe_unused]] static tsuemu::KernelDescriptor* descriptor_for(tag<kernel>) { return &tsu_kernel_##id; } \
    [[maybe_unused]] static const bool tsu_kernel_named_##id =                                                  \
        name_descriptor(&tsu_kernel_##id, reinterpret_cast<const void*>(kernel));                              \
    }

// A kernel that is a plain function rather than a template: its X-macro gives
// () for both template lists. The kernel source defines the body, then
// expands TSU_KERNEL_PLAIN(family) once.
#define TSU_KERNEL_DECLARE_PLAIN(family) TSU_FAMILY_##family(TSU_KERNEL_DECLARE_PLAIN_)
#define TSU_KERNEL_DECLARE_PLAIN_(name, engine, tparams, targs, ...)                              \
    namespace tsu3 {                                                                              \
    void name(TSU_PP_FOR_EACH(TSU_PP_DECL, __VA_ARGS__));                                         \
    int __device_stub__##name(TSU_PP_FOR_EACH(TSU_PP_DECL, __VA_ARGS__));                        \
    }                                                                                             \
    namespace tsuops::kernels {                                                                   \
    inline constexpr std::uint64_t engine_of_##name = engine;                                     \
    }

#define TSU_KERNEL_PLAIN(family) TSU_FAMILY_##family(TSU_KERNEL_PLAIN_)
#define TSU_KERNEL_PLAIN_(name, engine, tparams, targs, ...) TSU_KERNEL_PLAIN_I(__COUNTER__, name, __VA_ARGS__)
#define TSU_KERNEL_PLAIN_I(id, name, ...) TSU_KERNEL_PLAIN_II(id, name, __VA_ARGS__)
#define TSU_KERNEL_PLAIN_II(id, name, ...)                                                             \
    TSU_KERNEL_DESCRIPTOR(id, name, (&::tsu3::name))                                                   \
    namespace tsu3 {                                                                                   \
    __attribute__((weak)) int __device_stub__##name(TSU_PP_FOR_EACH(TSU_PP_DECL, __VA_ARGS__)) {       \
        return ::tsuops::kernels::kernel_fn<&name>::launch(descriptor_for(::tsuops::kernels::tag<&name>{}), \
                                                           TSU_PP_FOR_EACH(TSU_PP_NAME, __VA_ARGS__)); \
    }                                                                                                  \
    }

// A kernel that is the static member `eval` of a class template, as
//   tsu3::name<K, V, 1, 0>::eval(...).
// The X-macro is the same as for a function template. The header expands
// TSU_KERNEL_DECLARE_STRUCT(family), which declares the class with `eval` and
// its launch stub `__device_stub__eval`; the kernel source defines
// `name<...>::eval`, then expands TSU_KERNEL_DEFINE_STRUCT(family) and one
// TSU_KERNEL_INSTANCE_STRUCT(name, args...) per instance.
#define TSU_KERNEL_DECLARE_STRUCT(family) TSU_FAMILY_##family(TSU_KERNEL_DECLARE_STRUCT_)
#define TSU_KERNEL_DECLARE_STRUCT_(name, engine, tparams, targs, ...)                \
    namespace tsu3 {                                                                 \
    template <TSU_PP_UNPAREN tparams>                                                \
    struct name {                                                                    \
        static void eval(TSU_PP_FOR_EACH(TSU_PP_DECL, __VA_ARGS__));                 \
        static int __device_stub__eval(TSU_PP_FOR_EACH(TSU_PP_DECL, __VA_ARGS__));   \
    };                                                                               \
    }                                                                                \
    namespace tsuops::kernels {                                                      \
    inline constexpr std::uint64_t engine_of_##name = engine;                        \
    }

#define TSU_KERNEL_DEFINE_STRUCT(family) TSU_FAMILY_##family(TSU_KERNEL_DEFINE_STRUCT_)
#define TSU_KERNEL_DEFINE_STRUCT_(name, engine, tparams, targs, ...)                                          \
    namespace tsu3 {                                                                                          \
    template <TSU_PP_UNPAREN tparams>                                                                         \
    int name<TSU_PP_UNPAREN targs>::__device_stub__eval(TSU_PP_FOR_EACH(TSU_PP_DECL, __VA_ARGS__)) {          \
        using fn = ::tsuops::kernels::kernel_fn<&name<TSU_PP_UNPAREN targs>::eval>;                           \
        return fn::launch(descriptor_for(::tsuops::kernels::tag<&name<TSU_PP_UNPAREN targs>::eval>{}),        \
                          TSU_PP_FOR_EACH(TSU_PP_NAME, __VA_ARGS__));                                         \
    }                                                                                                         \
    }

#define TSU_KERNEL_INSTANCE_STRUCT(name, ...) TSU_KERNEL_INSTANCE_STRUCT_I(__COUNTER__, name, __VA_ARGS__)
#define TSU_KERNEL_INSTANCE_STRUCT_I(id, name, ...) TSU_KERNEL_INSTANCE_STRUCT_II(id, name, __VA_ARGS__)
#define TSU_KERNEL_INSTANCE_STRUCT_II(id, name, ...)                    \
    TSU_KERNEL_DESCRIPTOR(id, name, (&::tsu3::name<__VA_ARGS__>::eval)) \
    template struct tsu3::name<__VA_ARGS__>;
