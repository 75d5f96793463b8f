// Where keys and values lie: the input layouts "BLHD" and "BHLD", the paged
// "HLD" cache, the slot-major cache, and the two ways of naming a cache
// position (a slot_mapping entry, a block_table lookup). Every cache
// operator, fused front end and kernel addresses rows through this header
// and nothing else, so that a layout means the same thing everywhere.
//
// Letters list the axes from slowest to fastest: B the sequence or batch
// slot, L the position along a sequence, H the head, D the element within a
// head. Offsets are in elements and always computed in 64 bits.
#pragma once

#include <optional>
#include <string_view>

namespace infer_ops::cache {

// The value is the layout argument of the kernels that take one.
enum class InputLayout : int { BHLD = 0, BLHD = 1 };

inline constexpr std::string_view kBHLD = "BHLD";
inline constexpr std::string_view kBLHD = "BLHD";
// The paged cache, named by the axes of one block.
inline constexpr std::string_view kPagedHLD = "HLD";

constexpr std::optional<InputLayout> input_layout(std::string_view name) {
    if (name == kBHLD) return InputLayout::BHLD;
    if (name == kBLHD) return InputLayout::BLHD;
    return std::nullopt;
}

// Heads of D elements each: the shape shared by an input row and a cache row.
struct HeadShape {
    long heads;
    long dim;
};

// One sequence of an input tensor: its first token (lod[b]) and its token
// count S. Both layouts give it the same stretch of S * H * D elements from
// start * H * D; "BLHD" is token-major inside it, "BHLD" head-major.
struct Sequence {
    long start;
    long tokens;
};

// The first element of head h of token j of sequence s.
template <InputLayout L>
constexpr long input_row(HeadShape hs, Sequence s, long j, long h) {
    if constexpr (L == InputLayout::BLHD) {
        return (s.start + j) * hs.heads * hs.dim + h * hs.dim;
    } else {
        return s.start * hs.heads * hs.dim + h * s.tokens * hs.dim + j * hs.dim;
    }
}

constexpr long input_row(InputLayout layout, HeadShape hs, Sequence s, long j, long h) {
    return layout == InputLayout::BLHD ? input_row<InputLayout::BLHD>(hs, s, j, h)
                                       : input_row<InputLayout::BHLD>(hs, s, j, h);
}

// A flat token tensor [token, head, dim]: "BLHD" with one token per sequence.
constexpr long token_row(HeadShape hs, long t, long h) { return (t * hs.heads + h) * hs.dim; }

// A position in a paged cache: the physical block and the offset in it.
struct PagedPosition {
    long block;
    long off;
};

// A slot_mapping entry is the flat position block * block_size + off.
// Division truncates, so a negative slot gives a negative offset and still
// addresses the row at that flat position: nothing skips it.
template <typename TID>
constexpr PagedPosition slot_position(TID slot, long block_size) {
    const long s = static_cast<long>(slot);
    return {s / block_size, s % block_size};
}

// Logical position pos of the sequence in row r of a block_table
// [max_batch, max_blocks_per_seq].
template <typename TID>
constexpr PagedPosition table_position(const TID* block_table, long r, long max_blocks_per_seq, long pos,
                                       long block_size) {
    return {static_cast<long>(block_table[r * max_blocks_per_seq + pos / block_size]), pos % block_size};
}

// The paged "HLD" cache [num_blocks, H, block_size, D]: a block holds
// block_size consecutive positions of one sequence for every head,
// head-major, so one head's positions of a block are contiguous.
struct PagedCache {
    HeadShape hs;
    long block_size;

    constexpr long row(PagedPosition p, long h) const {
        return ((p.block * hs.heads + h) * block_size + p.off) * hs.dim;
    }
    constexpr long elements(long num_blocks) const { return num_blocks * hs.heads * block_size * hs.dim; }
};

// A paged "HLD" cache of 4-bit values, two a byte; offsets are in bytes.
// Keys pair along the head: byte i of row (block, h, off) holds element 2i
// in its low four bits and 2i + 1 in its high four bits. Values pair along
// the sequence: byte d of the pair row of positions (off & ~1, off | 1) holds
// element d of the even position low, of the odd position high.
struct PagedInt4Cache {
    HeadShape hs;
    long block_size;

    constexpr long key_row(PagedPosition p, long h) const {
        return ((p.block * hs.heads + h) * block_size + p.off) * (hs.dim / 2);
    }
    constexpr long value_row(PagedPosition p, long h) const {
        return ((p.block * hs.heads + h) * block_size / 2 + p.off / 2) * hs.dim;
    }
    constexpr long bytes(long num_blocks) const { return num_blocks * hs.heads * block_size * hs.dim / 2; }
};

// The slot-major cache [max_slots, H, max_seq_len, D]: "BHLD" over whole
// sequences, one slot per sequence.
struct SlotMajorCache {
    HeadShape hs;
    long max_seq_len;

    constexpr long row(long slot, long h, long pos) const {
        return ((slot * hs.heads + h) * max_seq_len + pos) * hs.dim;
    }
    constexpr long elements(long max_slots) const { return max_slots * hs.heads * max_seq_len * hs.dim; }
};

// The sequence of token t in a lod walked token by token from sequence 0:
// the walk moves on by at most one sequence per token, so a sequence of no
// tokens takes the following token. Given the sequence b of token t - 1
// (0 for t = 0), returns that of t.
inline long lod_walk(const int* lod, long b, long t) { return t >= lod[b + 1] ? b + 1 : b; }

}  // namespace infer_ops::cache
