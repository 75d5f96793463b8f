#include <tsuops/vector_param.h>

namespace orvane::tsu::api {

template <typename T>
VectorParam<T> VectorParam<T>::to_tsu(ctx_guard& guard) const {
    VectorParam<T> result = *this;
    if (tsu != nullptr) return result;
    Context* ctx = guard.ctx;
    if (ctx == nullptr || ctx->dev_type == 0) return result;
    result.tsu = guard.alloc<T>(static_cast<unsigned long>(len));
    if (result.tsu == nullptr) return result;
    if (do_host2device(ctx, cpu, result.tsu, len * static_cast<long>(sizeof(T))) != 0) result.tsu = nullptr;
    return result;
}

template struct VectorParam<int>;
template struct VectorParam<long>;

}  // namespace orvane::tsu::api
