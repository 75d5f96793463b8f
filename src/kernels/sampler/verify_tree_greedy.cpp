// A walk reads only through links and positions that lie inside the batch:
// a link outside [0, num_draft_tokens) ends its list as -1 does, a node
// whose global position lies outside [0, bs * num_draft_tokens) ends the
// walk before it is accepted (a root outside it ends the walk before it
// starts, with no bonus token), and a list of siblings that has not matched
// after num_draft_tokens nodes is a cycle and ends the walk.
#include "kernels/sampler/verify_tree_greedy.h"

#include "kernels/grid.h"

namespace tsu3 {

template <typename TI, typename TL>
void infer_verify_tree_greedy(TI* predicts, TI* accept_index, TI* accept_token_num, TL* candidates,
                              TL* retrive_index, TL* retrive_next_token, TL* retrive_next_sibling,
                              TL* target_predict, long bs, long num_spec_step, long num_draft_tokens) {
    if (bs < 1 || num_spec_step < 1 || num_draft_tokens < 1) return;
    const long total = bs * num_draft_tokens;
    const auto local = [&](TL v) { return v >= 0 && v < num_draft_tokens; };
    const auto global = [&](TL v) { return v >= 0 && v < total; };
    const auto [first, end] = tsuops::kernels::core_share(bs);
    for (long b = first; b < end; ++b) {
        const TL* cand = candidates + b * num_draft_tokens;
        const TL* index = retrive_index + b * num_draft_tokens;
        const TL* next = retrive_next_token + b * num_draft_tokens;
        const TL* sibling = retrive_next_sibling + b * num_draft_tokens;
        TI* accepted_at = accept_index + b * num_spec_step;
        TL last = index[0];
        accepted_at[0] = static_cast<TI>(last);
        long accepted = 0;
        if (global(last)) {
            TL cur = 0;
            bool walking = num_spec_step >= 2;
            while (walking) {
                cur = next[cur];
                if (!local(cur)) break;
                const TL target = target_predict[last];
                for (long seen = 1; walking && cand[cur] != target; ++seen) {
                    cur = sibling[cur];
                    walking = local(cur) && seen < num_draft_tokens;
                }
                if (!walking || !global(index[cur])) break;
                predicts[last] = static_cast<TI>(target);
                last = index[cur];
                accepted_at[++accepted] = static_cast<TI>(last);
                walking = accepted < num_spec_step - 1;
            }
            predicts[last] = static_cast<TI>(target_predict[last]);
        }
        accept_token_num[b] = static_cast<TI>(accepted);
    }
}

}  // namespace tsu3

TSU_KERNEL_DEFINE(infer_verify_tree_greedy)
TSU_KERNEL_INSTANCE(infer_verify_tree_greedy, int, int)
TSU_KERNEL_INSTANCE(infer_verify_tree_greedy, int, long)
