#include <tsuops/sampler.h>

#include "frame/frame.h"
#include "kernels/sampler/verify_tree_greedy.h"
#include "wrapper/sampler/sampler_limits.h"

namespace infer_ops {

namespace {

using frame::Rel;

// Per sequence: from the root, the first child of the current node, then
// its siblings in list order, until one carries the target's token at the
// current node; that child is accepted and becomes the current node. The
// target's token lands in predicts at every accepted node's parent, and
// once more, as the bonus token, at the last node. Links and positions are
// used only inside the tree and the batch (see the header).
template <typename TI, typename TL>
int cpu_wrapper(TI* predicts, TI* accept_index, TI* accept_token_num, const TL* candidates, const TL* retrive_index,
                const TL* retrive_next_token, const TL* retrive_next_sibling, const TL* target_predict, long bs,
                long num_spec_step, long num_draft_tokens) {
    const long total = bs * num_draft_tokens;
    for (long b = 0; b < bs; ++b) {
        const long base = b * num_draft_tokens, aoff = b * num_spec_step;
        TL last = retrive_index[base];
        accept_index[aoff] = static_cast<TI>(last);
        long accepted = 0;
        if (last >= 0 && last < total) {
            TL cur = 0;
            while (num_spec_step >= 2) {
                cur = retrive_next_token[base + cur];
                if (cur < 0 || cur >= num_draft_tokens) break;
                const TL target = target_predict[last];
                bool matched = true;
                long seen = 1;
                while (candidates[base + cur] != target) {
                    cur = retrive_next_sibling[base + cur];
                    if (cur < 0 || cur >= num_draft_tokens || seen == num_draft_tokens) {
                        matched = false;
                        break;
                    }
                    ++seen;
                }
                if (!matched) break;
                const TL node = retrive_index[base + cur];
                if (node < 0 || node >= total) break;
                predicts[last] = static_cast<TI>(target);
                accepted += 1;
                accept_index[aoff + accepted] = static_cast<TI>(node);
                last = node;
                if (accepted == num_spec_step - 1) break;
            }
            predicts[last] = static_cast<TI>(target_predict[last]);
        }
        accept_token_num[b] = static_cast<TI>(accepted);
    }
    return SUCCESS;
}

// One launch; a failure comes back as the runtime's code, logged as a
// nested status.
template <typename TI, typename TL>
int tsu3_wrapper(Context* ctx, TI* predicts, TI* accept_index, TI* accept_token_num, TL* candidates,
                 TL* retrive_index, TL* retrive_next_token, TL* retrive_next_sibling, TL* target_predict, long bs,
                 long num_spec_step, long num_draft_tokens) {
    const int code = frame::cluster_launch(ctx).raw(
        &tsu3::__device_stub__infer_verify_tree_greedy<TI, TL>, predicts, accept_index, accept_token_num, candidates,
        retrive_index, retrive_next_token, retrive_next_sibling, target_predict, bs, num_spec_step, num_draft_tokens);
    return frame::check_nested(ctx, code);
}

}  // namespace

template <typename TI, typename TL>
int verify_tree_greedy(Context* ctx, TI* predicts, TI* accept_index, TI* accept_token_num, TL* candidates,
                       TL* retrive_index, TL* retrive_next_token, TL* retrive_next_sibling, TL* target_predict,
                       long bs, long num_spec_step, long num_draft_tokens) {
    if (ctx == nullptr) return STATUS_INVALID_ARGUMENT;
    ContextStackGuard guard(ctx, "INFRA");
    frame::open<TI, TL>(guard, ctx, "verify_tree_greedy", predicts, accept_index, accept_token_num, candidates,
                        retrive_index, retrive_next_token, retrive_next_sibling, target_predict, bs, num_spec_step,
                        num_draft_tokens);
    const long nodes = bs * num_draft_tokens, steps = bs * num_spec_step;
    if (int st = frame::output(guard, ctx, "predicts", predicts, nodes)) return st;
    if (int st = frame::output(guard, ctx, "accept_index", accept_index, steps)) return st;
    if (int st = frame::output(guard, ctx, "accept_token_num", accept_token_num, steps)) return st;
    if (int st = frame::input(guard, ctx, "candidates", candidates, nodes)) return st;
    if (int st = frame::input(guard, ctx, "retrive_index", retrive_index, nodes)) return st;
    if (int st = frame::input(guard, ctx, "retrive_next_token", retrive_next_token, nodes)) return st;
    if (int st = frame::input(guard, ctx, "retrive_next_sibling", retrive_next_sibling, nodes)) return st;
    if (int st = frame::input(guard, ctx, "target_predict", target_predict, nodes)) return st;
    if (int st = frame::check(ctx, bs, Rel::LE, sampler_limits::kMaxTreeBatch)) return st;
    if (int st = frame::check(ctx, num_spec_step, Rel::LE, sampler_limits::kMaxSpecSteps)) return st;
    if (int st = frame::check(ctx, num_draft_tokens, Rel::LE, sampler_limits::kMaxDraftTokens)) return st;
    return frame::dispatch(
        ctx,
        [&] {
            return cpu_wrapper(predicts, accept_index, accept_token_num, candidates, retrive_index,
                               retrive_next_token, retrive_next_sibling, target_predict, bs, num_spec_step,
                               num_draft_tokens);
        },
        [&] {
            return tsu3_wrapper(ctx, predicts, accept_index, accept_token_num, candidates, retrive_index,
                                retrive_next_token, retrive_next_sibling, target_predict, bs, num_spec_step,
                                num_draft_tokens);
        });
}

template int verify_tree_greedy<int, int>(Context*, int*, int*, int*, int*, int*, int*, int*, int*, long, long, long);
template int verify_tree_greedy<int, long>(Context*, int*, int*, int*, long*, long*, long*, long*, long*, long, long,
                                           long);

}  // namespace infer_ops
