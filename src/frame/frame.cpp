#include "frame.h"

namespace infer_ops::frame {

int check_shape(Context* ctx, const std::vector<long>& shape, long* count, where at) {
    // Device types 1 and 2 address at most 2^31 elements per tensor.
    const bool bounded = ctx->dev_type == 1 || ctx->dev_type == 2;
    bool ok = !shape.empty();
    __int128 product = 1;
    for (std::size_t i = 0; ok && i < shape.size(); ++i) {
        if (shape[i] < 1) {
            ok = false;
            break;
        }
        product *= shape[i];
        if (bounded && product >= (static_cast<__int128>(1) << 31)) ok = false;
        // Beyond this no element count is meaningful on any device.
        if (product > static_cast<__int128>(INT64_MAX)) ok = false;
    }
    if (ok && product < 1) ok = false;
    if (!ok) {
        api::_log_invalid_shape(ctx, at.file_name(), static_cast<int>(at.line()), shape);
        return STATUS_INVALID_ARGUMENT;
    }
    if (count) *count = static_cast<long>(product);
    return SUCCESS;
}

int check_dims(Context* ctx, std::initializer_list<long> dims, where at) {
    for (long d : dims) {
        if (d < 1) {
            api::_log_invalid_shape(ctx, at.file_name(), static_cast<int>(at.line()), dims);
            return STATUS_INVALID_ARGUMENT;
        }
    }
    return SUCCESS;
}

int check_nested(Context* ctx, int ret, where at) {
    if (ret == 0) return SUCCESS;
    api::_log_compare_fail(ctx, at.file_name(), static_cast<int>(at.line()), format("%d", ret), "==", "SUCCESS");
    return ret;
}

int unimplemented(Context* ctx, where at) {
    api::_log_unimplement(ctx, at.file_name(), static_cast<int>(at.line()));
    return STATUS_UNIMPLEMENTED;
}

}  // namespace infer_ops::frame
