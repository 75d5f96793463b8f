// The layer demo: one mixture-of-experts decoder layer through libtsuops, the
// way a serving engine calls it, on the emulated TSU3 device and on the host
// reference path side by side.
//
// A small model with weights made from a seed (hidden size 1024, 16 query
// heads and 4 key/value heads of 64, 32 experts of which each token takes 4,
// an expert intermediate size of 512, a vocabulary of 8192) prefills a batch
// of prompts of different lengths into a paged bfloat16 cache and then runs
// decode steps, one new token per sequence each. Every pass goes through the
// library in the order a serving engine calls it:
//
//   rms_layer_norm -> QKV projection* -> split_rope_cache_kv_encoder (prefill)
//   or split_rope_cache_kv_decoder (decode) -> attention over the paged cache*
//   -> output projection and residual* -> rms_layer_norm -> router logits*
//   -> moe_softmax_topk -> moe_ffn_pre_sorted -> expert up projections*
//   -> swiglu -> expert down projections* -> moe_ffn_post_fusion -> residual*
//   -> rms_layer_norm (last token of each sequence) -> logits, softmax*
//   -> top_p_sampling
//
// The steps marked * are not the library's: an engine takes matrix products
// and the attention itself from elsewhere. The demo does them with plain host
// loops (the "demo helpers" below), kept out of every timing.
//
// Every operator call runs twice on the same inputs: on a device context,
// timed and with its launches recorded by the runtime's launch observer, and
// on a host context, whose reference path is the operator's definition. The
// demo compares the two results bit for bit and carries on with the device's,
// so that each comparison is about one operator alone.
#include <sched.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <limits>
#include <map>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

#include <tsuops/infer_ops.h>
#include <tsurt/emulator.h>
#include <tsurt/tsurt.h>

namespace {

using orvane::tsu::api::Context;
using orvane::tsu::api::DeviceType;
using orvane::tsu::api::VectorParam;

// ---- the model ------------------------------------------------------------------------------

constexpr long kHidden = 1024;
constexpr long kQHeads = 16;
constexpr long kKvHeads = 4;
constexpr long kHeadDim = 64;
constexpr long kQkvWidth = (kQHeads + 2 * kKvHeads) * kHeadDim;
constexpr long kExperts = 32;
constexpr long kTopK = 4;
constexpr long kInter = 512;
constexpr long kBlockSize = 16;
constexpr long kVocab = 8192;
constexpr float kEps = 1e-6f;
constexpr double kRopeBase = 10000.0;
// Token blocks of the router's per-block expert histogram, which the gather
// of moe_ffn_pre_sorted uses to place each block's rows.
constexpr long kRouterBlocks = 8;

// ---- options --------------------------------------------------------------------------------

constexpr long kMaxSequences = 64;
constexpr long kMaxPromptTokens = 2048;
constexpr long kMaxTotalPromptTokens = 4096;
constexpr long kMaxDecodeSteps = 256;

struct Options {
    std::vector<long> prompts{37, 128, 300};
    long decode_steps = 16;
    std::uint64_t seed = 1;
    int threads = 0;  // 0: every CPU this process may use
    std::string trace;
    // LAYER_DEMO_FAULT=OP:flip or OP:launch, for testing the demo's own
    // checks: the first call of operator OP sees the lowest bit of its first
    // device result flipped, or its first launch fail.
    std::string fault_op, fault_kind;
};

int allowed_cpus() {
    cpu_set_t set;
    if (sched_getaffinity(0, sizeof set, &set) != 0) return 1;
    return std::max(1, CPU_COUNT(&set));
}

void usage(std::FILE* to) {
    std::fprintf(to,
                 "usage: layer_demo [--tokens L1,L2,...] [--decode-steps N] [--seed S] [--threads N] [--trace FILE]\n"
                 "\n"
                 "Runs one mixture-of-experts decoder layer through libtsuops on the emulated TSU3 device: a\n"
                 "prefill of a batch of prompts, then decode steps. Every operator call also runs on the host\n"
                 "reference path with the same inputs, and the two results are compared bit for bit.\n"
                 "\n"
                 "  --tokens L1,L2,...  prompt lengths, one per sequence (default 37,128,300): 1 to %ld\n"
                 "                      sequences of 1 to %ld tokens, at most %ld tokens in all\n"
                 "  --decode-steps N    decode steps after the prefill, 0 to %ld (default 16)\n"
                 "  --seed S            seed of the weights, the prompts and the sampling (default 1)\n"
                 "  --threads N         host CPUs to run on, 1 to %d (default all): the emulated device's\n"
                 "                      grid, the library's host threads and the demo's own helpers\n"
                 "  --trace FILE        write each device launch (kernel, grid, duration) to FILE as a Chrome\n"
                 "                      trace-event JSON file. To time each launch on its own, the runtime\n"
                 "                      then runs synchronously: a launch runs to its end inside the call that\n"
                 "                      issues it, and its event lasts from its start to the next launch of\n"
                 "                      the same operator call or to the end of the call\n"
                 "  -h, --help          this text\n"
                 "\n"
                 "Exit status: 0 when every operator succeeded and agreed with its reference, 1 when one\n"
                 "failed or disagreed, 2 for a bad command line (nothing is run).\n"
                 "To test the demo's own checks, LAYER_DEMO_FAULT=OP:flip flips the lowest bit of the first\n"
                 "device result of operator OP, and LAYER_DEMO_FAULT=OP:launch fails OP's first launch.\n",
                 kMaxSequences, kMaxPromptTokens, kMaxTotalPromptTokens, kMaxDecodeSteps, allowed_cpus());
}

// A whole decimal number in [lo, hi], nothing else.
bool parse_number(const std::string& s, long lo, long hi, long* out) {
    if (s.empty() || s.size() > 18 || s.find_first_not_of("0123456789") != std::string::npos) return false;
    const long v = std::stol(s);
    if (v < lo || v > hi) return false;
    *out = v;
    return true;
}

// Why the command line is refused, or empty when it is accepted.
std::string parse(int argc, char** argv, Options* o, bool* help) {
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i], value;
        if (arg == "-h" || arg == "--help") {
            *help = true;
            return {};
        }
        const auto eq = arg.find('=');
        const bool inline_value = arg.rfind("--", 0) == 0 && eq != std::string::npos;
        if (inline_value) {
            value = arg.substr(eq + 1);
            arg.resize(eq);
        }
        if (arg != "--tokens" && arg != "--decode-steps" && arg != "--seed" && arg != "--threads" && arg != "--trace")
            return "unknown option " + arg;
        if (!inline_value) {
            if (i + 1 >= argc) return arg + " needs a value";
            value = argv[++i];
        }
        long n = 0;
        if (arg == "--tokens") {
            o->prompts.clear();
            std::size_t from = 0;
            for (;;) {
                const auto comma = value.find(',', from);
                if (!parse_number(value.substr(from, comma - from), 1, kMaxPromptTokens, &n))
                    return "--tokens takes prompt lengths of 1 to " + std::to_string(kMaxPromptTokens) +
                           " tokens, separated by commas";
                o->prompts.push_back(n);
                if (comma == std::string::npos) break;
                from = comma + 1;
            }
            if (static_cast<long>(o->prompts.size()) > kMaxSequences)
                return "--tokens takes at most " + std::to_string(kMaxSequences) + " sequences";
            if (std::accumulate(o->prompts.begin(), o->prompts.end(), 0L) > kMaxTotalPromptTokens)
                return "--tokens takes at most " + std::to_string(kMaxTotalPromptTokens) + " tokens in all";
        } else if (arg == "--decode-steps") {
            if (!parse_number(value, 0, kMaxDecodeSteps, &o->decode_steps))
                return "--decode-steps takes 0 to " + std::to_string(kMaxDecodeSteps);
        } else if (arg == "--seed") {
            if (value.empty() || value.size() > 19 || value.find_first_not_of("0123456789") != std::string::npos)
                return "--seed takes a whole number";
            o->seed = std::stoull(value);
        } else if (arg == "--threads") {
            if (!parse_number(value, 1, allowed_cpus(), &n))
                return "--threads takes 1 to " + std::to_string(allowed_cpus());
            o->threads = static_cast<int>(n);
        } else {
            if (value.empty()) return "--trace needs a file name";
            o->trace = value;
        }
    }
    if (const char* fault = std::getenv("LAYER_DEMO_FAULT"); fault != nullptr && *fault != 0) {
        const std::string f = fault;
        const auto colon = f.find(':');
        o->fault_op = f.substr(0, colon);
        o->fault_kind = colon == std::string::npos ? "" : f.substr(colon + 1);
        if (o->fault_op.empty() || (o->fault_kind != "flip" && o->fault_kind != "launch"))
            return "LAYER_DEMO_FAULT takes OP:flip or OP:launch";
    }
    return {};
}

// Restricts this process to n of its CPUs before any thread exists, so that
// the runtime's grid, the library's host pool (which TSUAPI_NUM_THREADS caps)
// and the demo's helpers all see n.
void use_cpus(int n) {
    cpu_set_t have, keep;
    CPU_ZERO(&keep);
    if (sched_getaffinity(0, sizeof have, &have) != 0) return;
    for (int cpu = 0, taken = 0; cpu < CPU_SETSIZE && taken < n; ++cpu)
        if (CPU_ISSET(cpu, &have)) {
            CPU_SET(cpu, &keep);
            ++taken;
        }
    sched_setaffinity(0, sizeof keep, &keep);
    setenv("TSUAPI_NUM_THREADS", std::to_string(n).c_str(), 1);
}

// ---- demo helpers: what an engine takes from outside the library --------------------------

double seconds() { return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count(); }

int g_threads = 1;

// [0, n) in g_threads contiguous parts, one per thread.
void parallel_for(long n, const std::function<void(long, long)>& f) {
    const long parts = std::min<long>(g_threads, n);
    if (parts <= 1) {
        if (n > 0) f(0, n);
        return;
    }
    std::vector<std::thread> team;
    for (long p = 1; p < parts; ++p) team.emplace_back(f, n * p / parts, n * (p + 1) / parts);
    f(0, n / parts);
    for (auto& t : team) t.join();
}

// Uniform in [-1, 1): value i of stream s under the seed, a pure function of
// the three, so the model is the same for any thread count.
std::uint64_t mix(std::uint64_t z) {
    z += 0x9e3779b97f4a7c15ull;
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
    return z ^ (z >> 31);
}
float uniform(std::uint64_t seed, std::uint64_t stream, std::uint64_t i) {
    return static_cast<float>(mix(mix(seed ^ mix(stream)) + i) >> 40) * 0x1p-23f - 1.0f;
}

enum Stream : std::uint64_t { kQkvW = 1, kOutW, kRouterW, kUpW, kDownW, kLmW, kNormW, kPrompt, kTopP, kDraw, kEmbed };

void fill(std::vector<float>& w, std::uint64_t seed, Stream s, float scale) {
    parallel_for(static_cast<long>(w.size()), [&](long b, long e) {
        for (long i = b; i < e; ++i) w[i] = scale * uniform(seed, s, static_cast<std::uint64_t>(i));
    });
}

// y[m, n] = x[m, k] times w[k, n] (demo helper): a blocked loop, each sum in
// k order, so the result does not depend on the thread count.
template <class TX>
void matmul(const TX* x, long m, long k, const float* w, long n, float* y) {
    constexpr long R = 8, C = 256;
    const long col_tiles = (n + C - 1) / C;
    parallel_for((m + R - 1) / R * col_tiles, [&](long first, long last) {
        float acc[R][C];
        for (long tile = first; tile < last; ++tile) {
            const long r0 = tile / col_tiles * R, c0 = tile % col_tiles * C;
            const long rn = std::min(R, m - r0), cn = std::min(C, n - c0);
            for (long r = 0; r < rn; ++r) std::fill(acc[r], acc[r] + cn, 0.0f);
            for (long kk = 0; kk < k; ++kk) {
                const float* wr = w + kk * n + c0;
                for (long r = 0; r < rn; ++r) {
                    const float a = static_cast<float>(x[(r0 + r) * k + kk]);
                    for (long c = 0; c < cn; ++c) acc[r][c] += a * wr[c];
                }
            }
            for (long r = 0; r < rn; ++r) std::copy(acc[r], acc[r] + cn, y + (r0 + r) * n + c0);
        }
    });
}

// Where a sequence's positions lie in the paged cache: row b of the block
// table, filled from a shuffled list of free blocks as an engine's block
// allocator hands them out; entries past a sequence's last block are -1.
struct Paging {
    long max_batch = 0, blocks_per_seq = 0;
    std::vector<int> table;

    long blocks() const { return max_batch * blocks_per_seq; }
    long row_offset(long b, long pos) const {  // element offset of (block of pos, head 0, pos) in a cache
        const long block = table[b * blocks_per_seq + pos / kBlockSize];
        return (block * kKvHeads * kBlockSize + pos % kBlockSize) * kHeadDim;
    }
    int slot(long b, long pos) const {
        return static_cast<int>(table[b * blocks_per_seq + pos / kBlockSize] * kBlockSize + pos % kBlockSize);
    }
};

// Causal attention of the new tokens over the paged cache (demo helper): the
// token at position p of sequence b attends to positions 0 to p of b, query
// head h to key/value head h / (query heads per key head). Scores, softmax
// and sums in float; out[t, h * D + d] narrowed to bfloat16.
void attention(const bfloat16* q, const bfloat16* k_cache, const bfloat16* v_cache, const Paging& paging,
               const std::vector<int>& lod, const std::vector<long>& first_pos, bfloat16* out) {
    const long tokens = lod.back(), batch = static_cast<long>(first_pos.size());
    const float scale = 1.0f / std::sqrt(static_cast<float>(kHeadDim));
    parallel_for(tokens * kQHeads, [&](long first, long last) {
        std::vector<float> p, acc(kHeadDim);
        for (long task = first; task < last; ++task) {
            const long t = task / kQHeads, h = task % kQHeads, g = h / (kQHeads / kKvHeads);
            long b = 0;
            while (b + 1 < batch && lod[b + 1] <= t) ++b;
            const long pos = first_pos[b] + t - lod[b];
            const bfloat16* qr = q + (t * kQHeads + h) * kHeadDim;
            p.assign(pos + 1, 0.0f);
            float top = -std::numeric_limits<float>::infinity(), sum = 0.0f;
            for (long j = 0; j <= pos; ++j) {
                const bfloat16* kr = k_cache + paging.row_offset(b, j) + g * kBlockSize * kHeadDim;
                float dot = 0.0f;
                for (long d = 0; d < kHeadDim; ++d) dot += static_cast<float>(qr[d]) * static_cast<float>(kr[d]);
                p[j] = dot * scale;
                top = std::max(top, p[j]);
            }
            for (long j = 0; j <= pos; ++j) sum += p[j] = std::exp(p[j] - top);
            std::fill(acc.begin(), acc.end(), 0.0f);
            for (long j = 0; j <= pos; ++j) {
                const bfloat16* vr = v_cache + paging.row_offset(b, j) + g * kBlockSize * kHeadDim;
                for (long d = 0; d < kHeadDim; ++d) acc[d] += p[j] * static_cast<float>(vr[d]);
            }
            for (long d = 0; d < kHeadDim; ++d) out[t * kQHeads * kHeadDim + h * kHeadDim + d] = bfloat16(acc[d] / sum);
        }
    });
}

// x += y (demo helper), in float, narrowed to bfloat16.
void residual_add(bfloat16* x, const float* y, long n) {
    for (long i = 0; i < n; ++i) x[i] = bfloat16(static_cast<float>(x[i]) + y[i]);
}
void residual_add(bfloat16* x, const bfloat16* y, long n) {
    for (long i = 0; i < n; ++i) x[i] = bfloat16(static_cast<float>(x[i]) + static_cast<float>(y[i]));
}

// Each row of logits into probabilities (demo helper).
void softmax_rows(const float* logits, long rows, long n, float* p) {
    for (long r = 0; r < rows; ++r) {
        const float* l = logits + r * n;
        const float top = *std::max_element(l, l + n);
        double sum = 0.0;
        for (long i = 0; i < n; ++i) sum += std::exp(static_cast<double>(l[i] - top));
        for (long i = 0; i < n; ++i) p[r * n + i] = static_cast<float>(std::exp(static_cast<double>(l[i] - top)) / sum);
    }
}

// ---- tensors on both paths ------------------------------------------------------------------

// How two results differ: elements whose bits differ, the first of them, and
// the largest distance in units in the last place (infinite for integers and
// NaNs).
struct Difference {
    long count = 0;
    long first = -1;
    std::string device, reference;
    double max_ulp = 0.0;
};

// Distance of two floating patterns in units in the last place, through their
// order as sign-magnitude integers.
template <class Bits>
double ulp_distance(Bits a, Bits b, bool nan_a, bool nan_b) {
    if (nan_a || nan_b) return std::numeric_limits<double>::infinity();
    constexpr Bits sign = Bits(1) << (sizeof(Bits) * 8 - 1);
    const auto ordered = [](Bits v) { return (v & sign) ? -static_cast<double>(v & ~sign) : static_cast<double>(v); };
    return std::fabs(ordered(a) - ordered(b));
}

std::string show(bfloat16 v) {
    char s[48];
    std::snprintf(s, sizeof s, "0x%04x (%g)", v.x, static_cast<double>(static_cast<float>(v)));
    return s;
}
std::string show(float v) {
    std::uint32_t b;
    std::memcpy(&b, &v, 4);
    char s[48];
    std::snprintf(s, sizeof s, "0x%08x (%g)", b, static_cast<double>(v));
    return s;
}
std::string show(int v) { return std::to_string(v); }

template <class T>
double distance(T a, T b) {
    if constexpr (std::is_same_v<T, bfloat16>)
        return ulp_distance<std::uint16_t>(a.x, b.x, std::isnan(static_cast<float>(a)),
                                           std::isnan(static_cast<float>(b)));
    else if constexpr (std::is_same_v<T, float>) {
        std::uint32_t x, y;
        std::memcpy(&x, &a, 4);
        std::memcpy(&y, &b, 4);
        return ulp_distance<std::uint32_t>(x, y, std::isnan(a), std::isnan(b));
    } else
        return std::numeric_limits<double>::infinity();
}

class TensorBase {
public:
    enum class Role { none, input, output };

    TensorBase(const char* name, long capacity) : name_(name), capacity_(capacity) {}
    virtual ~TensorBase() = default;
    TensorBase(const TensorBase&) = delete;
    TensorBase& operator=(const TensorBase&) = delete;

    const char* name() const { return name_; }
    long capacity() const { return capacity_; }
    virtual long element_bytes() const = 0;
    virtual void to_device(long n) = 0;            // the host values into the device buffer
    virtual void from_device(long n) = 0;          // the device buffer into the host values
    virtual void seed_reference(long n) = 0;       // the reference copy from the host values
    virtual Difference compare(long n) const = 0;  // host values (the device's) against the reference
    virtual void flip_lowest_bit() = 0;            // of the first host value

    Role role = Role::none;  // in the operator call under way

private:
    const char* name_;
    long capacity_;
};

// A tensor of the layer: its values on the host (what the demo's helpers read
// and write, and after an operator what the device computed), a device buffer
// of the same capacity, and the reference path's result of the last call.
template <class T>
class Tensor : public TensorBase {
public:
    Tensor(const char* name, long capacity)
        : TensorBase(name, capacity), host_(static_cast<std::size_t>(capacity)), ref_(host_.size()) {
        void* p = nullptr;
        if (tsu_malloc(&p, static_cast<unsigned long>(capacity) * sizeof(T), 3) != 0 || p == nullptr) {
            std::fprintf(stderr, "layer_demo: no device memory for %s\n", name);
            std::exit(1);
        }
        dev_ = static_cast<T*>(p);
    }
    ~Tensor() override { tsu_free(dev_); }

    T* host() { return host_.data(); }
    T* reference() { return ref_.data(); }
    T* device() { return dev_; }
    std::vector<T>& values() { return host_; }

    long element_bytes() const override { return sizeof(T); }
    void to_device(long n) override { copy(dev_, host_.data(), n, TSU_MEMCPY_H2D); }
    void from_device(long n) override { copy(host_.data(), dev_, n, TSU_MEMCPY_D2H); }
    void seed_reference(long n) override { std::copy(host_.begin(), host_.begin() + n, ref_.begin()); }
    void flip_lowest_bit() override { reinterpret_cast<unsigned char*>(host_.data())[0] ^= 1; }
    Difference compare(long n) const override {
        Difference d;
        for (long i = 0; i < n; ++i) {
            if (std::memcmp(&host_[i], &ref_[i], sizeof(T)) == 0) continue;
            if (d.count++ == 0) {
                d.first = i;
                d.device = show(host_[i]);
                d.reference = show(ref_[i]);
            }
            d.max_ulp = std::max(d.max_ulp, distance(host_[i], ref_[i]));
        }
        return d;
    }

private:
    void copy(void* to, const void* from, long n, int kind) {
        if (n > capacity() || tsu_memcpy(to, from, static_cast<std::size_t>(n) * sizeof(T), kind) != 0) {
            std::fprintf(stderr, "layer_demo: copy of %ld elements of %s failed\n", n, name());
            std::exit(1);
        }
    }

    std::vector<T> host_, ref_;
    T* dev_ = nullptr;
};

// Where an operator call finds its tensors: the device buffers, or on the
// host the demo's values (inputs) and the reference copies (outputs).
struct Side {
    Context* ctx;
    bool device;

    template <class T>
    T* operator()(Tensor<T>& t) const {
        if (t.role == TensorBase::Role::none) {
            std::fprintf(stderr, "layer_demo: %s is used by a call that does not list it\n", t.name());
            std::abort();
        }
        if (device) return t.device();
        return t.role == TensorBase::Role::output ? t.reference() : t.host();
    }
};

// A tensor of a call, its first `count` elements in play; `moved` elements
// count as memory traffic (by default all of them).
struct Use {
    TensorBase& tensor;
    long count;
    long moved = -1;
    long bytes() const { return (moved < 0 ? count : moved) * tensor.element_bytes(); }
};

// ---- what the demo records -------------------------------------------------------------------

// Differences an operator's documentation allows between its device and host
// results; every operator not listed must agree bit for bit.
struct Allowance {
    const char* op;
    double ulp;
    const char* why;
};
constexpr Allowance kAllowances[] = {
    {"swiglu", 1, "its device exp may differ from the host's"},
    {"moe_ffn_post_fusion", kTopK, "its device may accumulate the experts in another order"},
};

std::string count_of(long n, const char* what) { return std::to_string(n) + " " + what + (n == 1 ? "" : "s"); }

// The largest difference as the report states it.
std::string largest(double ulp) {
    if (std::isinf(ulp)) return "integers or NaNs";
    char s[48];
    std::snprintf(s, sizeof s, "largest %g ulp", ulp);
    return s;
}

const Allowance* allowance(const std::string& op) {
    for (const auto& a : kAllowances)
        if (op == a.op) return &a;
    return nullptr;
}

struct Launch {
    double start;
    std::string kernel;
    int clusters, cores;
};

struct TraceEvent {
    double start, duration;
    std::string kernel, op, phase;
    int clusters, cores;
};

struct OpRecord {
    std::string phase, op;
    long calls = 0, launches = 0, differing_calls = 0;
    double device_s = 0, reference_s = 0, bytes = 0, max_ulp = 0;
    std::map<std::string, long> kernels;  // "name  clusters x cores" -> launches
};

std::string kernel_name(const std::string& signature) {
    int depth = 0;
    for (std::size_t i = 0; i < signature.size(); ++i) {
        if (signature[i] == '<')
            ++depth;
        else if (signature[i] == '>')
            --depth;
        else if (signature[i] == '(' && depth == 0)
            return signature.substr(0, i);
    }
    return signature;
}

std::string json_string(const std::string& s) {
    std::string out = "\"";
    for (const char c : s) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (static_cast<unsigned char>(c) < 0x20) {
            char u[8];
            std::snprintf(u, sizeof u, "\\u%04x", c);
            out += u;
        } else {
            out += c;
        }
    }
    return out + "\"";
}

// An operator that returned a non-zero status: the run stops there.
struct Failed {
    std::string what;
};

// ---- the demo -------------------------------------------------------------------------------

class LayerDemo {
public:
    explicit LayerDemo(const Options& o);
    ~LayerDemo() { tsuemu::set_launch_observer({}); }
    int run();

private:
    // One pass of the layer over the new tokens (prefill: every prompt token;
    // decode: the newest token of each sequence), each sequence's first new
    // token at position first_pos[b]; returns the token sampled per sequence.
    std::vector<int> forward(const std::vector<int>& tokens, const std::vector<int>& lod,
                             const std::vector<long>& first_pos, long step);
    void front_end(long tokens, const std::vector<int>& lod, const std::vector<long>& first_pos);
    void moe_block(long tokens);
    std::vector<int> sample(const std::vector<int>& lod, long step);

    // Runs one operator call on the device, then on the host with the same
    // inputs, and compares every output.
    void call(const char* op, std::initializer_list<Use> inputs, std::initializer_list<Use> outputs,
              const std::function<int(const Side&)>& on_device, const std::function<int(const Side&)>& on_host);
    void call(const char* op, std::initializer_list<Use> inputs, std::initializer_list<Use> outputs,
              const std::function<int(const Side&)>& both) {
        call(op, inputs, outputs, both, both);
    }
    OpRecord& record(const char* op);

    void timed_helper(const std::function<void()>& f) {
        const double t0 = seconds();
        f();
        helper_s_ += seconds() - t0;
    }
    void report(const std::string& failure);
    bool write_trace() const;

    Options o_;
    long batch_, prompt_tokens_, longest_, rope_len_;
    Context host_{DeviceType::CPU};
    Context dev_{DeviceType::TSU3};
    Paging paging_;
    std::string phase_;

    // Weights ([in, out] row-major for the products).
    std::vector<float> w_qkv_, w_out_, w_router_, w_up_, w_down_, w_lm_;

    // Activations, sized for the prefill; decode uses their first rows.
    Tensor<bfloat16> x_, h_, qkv_, q_emb_, k_emb_, v_out_, k_cache_, v_cache_;
    Tensor<float> rope_;
    Tensor<int> block_table_;
    Tensor<bfloat16> attn_norm_, ffn_norm_, final_norm_;
    Tensor<float> router_logits_, scores_;
    Tensor<int> topk_, block_stat_;
    Tensor<bfloat16> sorted_;
    Tensor<int> moe_index_, expert_m_, expert_lod_;
    Tensor<bfloat16> gate_up_, act_, expert_out_, moe_out_, last_, last_normed_;
    Tensor<float> probs_, top_ps_, draws_, top_p_values_;
    Tensor<int> top_p_ids_;

    std::vector<OpRecord> records_;
    std::vector<Launch> launches_;  // of the call under way
    std::vector<TraceEvent> trace_;
    std::vector<std::string> mismatches_;
    bool fault_done_ = false;
    double helper_s_ = 0, origin_ = seconds();
};

long ceil_div(long a, long b) { return (a + b - 1) / b; }

LayerDemo::LayerDemo(const Options& o)
    : o_(o),
      batch_(static_cast<long>(o.prompts.size())),
      prompt_tokens_(std::accumulate(o.prompts.begin(), o.prompts.end(), 0L)),
      longest_(*std::max_element(o.prompts.begin(), o.prompts.end())),
      rope_len_(longest_ + o.decode_steps),
      paging_{batch_, ceil_div(rope_len_, kBlockSize), {}},
      x_("x", prompt_tokens_ * kHidden),
      h_("h", prompt_tokens_ * kHidden),
      qkv_("qkv", prompt_tokens_ * kQkvWidth),
      q_emb_("q_emb", prompt_tokens_ * kQHeads * kHeadDim),
      k_emb_("k_emb", prompt_tokens_ * kKvHeads * kHeadDim),
      v_out_("v_out", prompt_tokens_ * kKvHeads * kHeadDim),
      k_cache_("k_cache", paging_.blocks() * kKvHeads * kBlockSize * kHeadDim),
      v_cache_("v_cache", paging_.blocks() * kKvHeads * kBlockSize * kHeadDim),
      rope_("rotary_pos_emb", 2 * rope_len_ * kHeadDim),
      block_table_("block_table", paging_.blocks()),
      attn_norm_("attn_norm", kHidden),
      ffn_norm_("ffn_norm", kHidden),
      final_norm_("final_norm", kHidden),
      router_logits_("router_logits", prompt_tokens_ * kExperts),
      scores_("topk_score", prompt_tokens_ * kTopK),
      topk_("topk_index", prompt_tokens_ * kTopK),
      block_stat_("block_statistic", kRouterBlocks * kExperts),
      sorted_("sorted_rows", prompt_tokens_ * kTopK * kHidden),
      moe_index_("moe_index", prompt_tokens_ * kTopK),
      expert_m_("expert_m", kExperts),
      expert_lod_("sorted_tokens_num_lod", kExperts + 1),
      gate_up_("gate_up", prompt_tokens_ * kTopK * 2 * kInter),
      act_("swiglu_out", prompt_tokens_ * kTopK * kInter),
      expert_out_("expert_out", prompt_tokens_ * kTopK * kHidden),
      moe_out_("moe_out", prompt_tokens_ * kHidden),
      last_("last_rows", batch_ * kHidden),
      last_normed_("last_rows_normed", batch_ * kHidden),
      probs_("probs", batch_ * kVocab),
      top_ps_("top_ps", batch_),
      draws_("rand_coeff", batch_),
      top_p_values_("top_p_values", batch_),
      top_p_ids_("top_p_ids", batch_) {
    const std::uint64_t seed = o.seed;
    const float unit = std::sqrt(3.0f / kHidden);  // unit-variance outputs for unit-variance inputs
    w_qkv_.resize(kHidden * kQkvWidth);
    w_out_.resize(kQHeads * kHeadDim * kHidden);
    w_router_.resize(kHidden * kExperts);
    w_up_.resize(kExperts * kHidden * 2 * kInter);  // per expert: gate columns, then up columns
    w_down_.resize(kExperts * kInter * kHidden);
    w_lm_.resize(kHidden * kVocab);
    fill(w_qkv_, seed, kQkvW, unit);
    fill(w_out_, seed, kOutW, unit);
    fill(w_router_, seed, kRouterW, 2 * unit);
    fill(w_up_, seed, kUpW, unit);
    fill(w_down_, seed, kDownW, std::sqrt(3.0f / kInter));
    fill(w_lm_, seed, kLmW, 3 * unit);
    Tensor<bfloat16>* norms[] = {&attn_norm_, &ffn_norm_, &final_norm_};
    for (int n = 0; n < 3; ++n)
        for (long i = 0; i < kHidden; ++i)
            norms[n]->host()[i] =
                bfloat16(1.0f + 0.1f * uniform(seed, kNormW, static_cast<std::uint64_t>(n * kHidden + i)));

    // "NORMAL" table: rows of head_dim entries, cosines then sines, the pair
    // (2i, 2i + 1) turning by pos * base^(-2i / head_dim).
    for (long pos = 0; pos < rope_len_; ++pos)
        for (long d = 0; d < kHeadDim; ++d) {
            const double angle =
                static_cast<double>(pos) * std::pow(kRopeBase, -static_cast<double>(d / 2 * 2) / kHeadDim);
            rope_.host()[pos * kHeadDim + d] = static_cast<float>(std::cos(angle));
            rope_.host()[(rope_len_ + pos) * kHeadDim + d] = static_cast<float>(std::sin(angle));
        }

    std::vector<int> free_blocks(static_cast<std::size_t>(paging_.blocks()));
    std::iota(free_blocks.begin(), free_blocks.end(), 0);
    for (long i = paging_.blocks() - 1; i > 0; --i)
        std::swap(free_blocks[i],
                  free_blocks[mix(seed ^ static_cast<std::uint64_t>(i)) % static_cast<std::uint64_t>(i + 1)]);
    paging_.table.assign(free_blocks.size(), -1);
    std::size_t next = 0;
    for (long b = 0; b < batch_; ++b)
        for (long i = 0; i < ceil_div(o.prompts[b] + o.decode_steps, kBlockSize); ++i)
            paging_.table[b * paging_.blocks_per_seq + i] = free_blocks[next++];
    std::copy(paging_.table.begin(), paging_.table.end(), block_table_.host());

    for (long b = 0; b < batch_; ++b)
        top_ps_.host()[b] = 0.8f + 0.15f * uniform(seed, kTopP, static_cast<std::uint64_t>(b));

    tsuemu::set_launch_observer([this](const tsuemu::LaunchRecord& r) {
        launches_.push_back({seconds(), r.kernel, r.nclusters, r.ncores});
    });
}

OpRecord& LayerDemo::record(const char* op) {
    for (auto& r : records_)
        if (r.phase == phase_ && r.op == op) return r;
    OpRecord r;
    r.phase = phase_;
    r.op = op;
    records_.push_back(r);
    return records_.back();
}

void LayerDemo::call(const char* op, std::initializer_list<Use> inputs, std::initializer_list<Use> outputs,
                     const std::function<int(const Side&)>& on_device, const std::function<int(const Side&)>& on_host) {
    OpRecord& rec = record(op);
    // Both paths start from the same state: the device buffers hold the
    // host values of every tensor of the call, the reference outputs too
    // (a cache is an output that keeps what it held).
    for (const Use& u : inputs) {
        u.tensor.role = TensorBase::Role::input;
        u.tensor.to_device(u.count);
    }
    for (const Use& u : outputs) {
        u.tensor.role = TensorBase::Role::output;
        u.tensor.to_device(u.count);
        u.tensor.seed_reference(u.count);
    }

    const bool fault = o_.fault_op == op && !fault_done_;
    fault_done_ = fault_done_ || fault;
    if (fault && o_.fault_kind == "launch") tsuemu::inject_failure(tsuemu::Site::Async, 1, TSU_ERROR_INVALID_VALUE);

    launches_.clear();
    const double t0 = seconds();
    const int device_status = on_device(Side{&dev_, true});
    tsu_wait(dev_.stream);
    const double t1 = seconds();
    tsuemu::clear_failures();
    const int host_status = device_status == 0 ? on_host(Side{&host_, false}) : 0;
    const double t2 = seconds();

    rec.calls += 1;
    rec.device_s += t1 - t0;
    rec.reference_s += t2 - t1;
    for (const Use& u : inputs) rec.bytes += static_cast<double>(u.bytes());
    for (const Use& u : outputs) rec.bytes += static_cast<double>(u.bytes());
    for (std::size_t i = 0; i < launches_.size(); ++i) {
        const Launch& l = launches_[i];
        const double end = i + 1 < launches_.size() ? launches_[i + 1].start : t1;
        const std::string name = kernel_name(l.kernel);
        rec.launches += 1;
        rec.kernels[name + "  " + std::to_string(l.clusters) + "x" + std::to_string(l.cores)] += 1;
        trace_.push_back({l.start, end - l.start, name, op, phase_, l.clusters, l.cores});
    }
    for (const Use& u : inputs) u.tensor.role = TensorBase::Role::none;
    for (const Use& u : outputs) u.tensor.role = TensorBase::Role::none;
    if (device_status != 0 || host_status != 0) {
        throw Failed{std::string(op) + " (" + phase_ + ") returned status " +
                     std::to_string(device_status != 0 ? device_status : host_status) + " on the " +
                     (device_status != 0 ? "device" : "host reference path")};
    }

    const Allowance* allowed = allowance(op);
    bool beyond = false;
    for (const Use& u : outputs) {
        u.tensor.from_device(u.count);
        if (fault && o_.fault_kind == "flip" && &u.tensor == &outputs.begin()->tensor) u.tensor.flip_lowest_bit();
        const Difference d = u.tensor.compare(u.count);
        if (d.count == 0) continue;
        rec.max_ulp = std::max(rec.max_ulp, d.max_ulp);
        const bool within = allowed != nullptr && d.max_ulp <= allowed->ulp;
        beyond = beyond || !within;
        if (within) continue;
        char line[512];
        std::snprintf(line, sizeof line,
                      "MISMATCH %s (%s, call %ld): %s differs in %ld of %ld elements (%s); first at %ld: device %s, "
                      "reference %s",
                      op, phase_.c_str(), rec.calls, u.tensor.name(), d.count, u.count, largest(d.max_ulp).c_str(),
                      d.first, d.device.c_str(), d.reference.c_str());
        mismatches_.push_back(line);
    }
    rec.differing_calls += beyond ? 1 : 0;
}

// ---- the layer ------------------------------------------------------------------------------

void LayerDemo::front_end(long tokens, const std::vector<int>& lod, const std::vector<long>& first_pos) {
    const bool prefill = phase_ == "prefill";
    const long kv = kKvHeads * kHeadDim, cache = k_cache_.capacity(), table_len = paging_.blocks();
    std::vector<int> rows(static_cast<std::size_t>(batch_)), starts(rows.size()), lens(rows.size());
    std::vector<int> slots;
    for (long b = 0; b < batch_; ++b) {
        rows[b] = static_cast<int>(b);
        starts[b] = static_cast<int>(first_pos[b]);
        lens[b] = static_cast<int>(first_pos[b] + 1);  // decode: the length with the new token
        for (long pos = first_pos[b]; pos < first_pos[b] + lod[b + 1] - lod[b]; ++pos)
            slots.push_back(paging_.slot(b, pos));
    }
    const VectorParam<int> lod_p{lod.data(), batch_ + 1}, rows_p{rows.data(), batch_}, starts_p{starts.data(), batch_},
        lens_p{lens.data(), batch_};

    // The bfloat16 front ends have no host path of their own: the reference is
    // what they are documented to be, from the host paths of their parts.
    // Split the qkv rows, rotate query and key with the adjacent-pairs rotary
    // embedding, store the rotated key and the value at each token's slot.
    const auto composed = [&](const Side& s) {
        std::vector<bfloat16> q(static_cast<std::size_t>(tokens * kQHeads * kHeadDim)),
            k(static_cast<std::size_t>(tokens * kv));
        int rc = infer_ops::cpu_ops::split<bfloat16>(s.ctx, s(qkv_), {q.data(), k.data(), s(v_out_)},
                                                     {tokens, kQHeads + 2 * kKvHeads, kHeadDim},
                                                     {kQHeads, kKvHeads, kKvHeads}, 1);
        if (rc == 0)
            rc = infer_ops::vsl_rotary_embedding_gptj<bfloat16, float, int>(
                s.ctx, q.data(), k.data(), s(rope_), s(q_emb_), s(k_emb_), lod_p, 1, rope_len_, kQHeads, kHeadDim,
                "BLHD", starts_p, "NORMAL", kKvHeads, false);
        if (rc == 0)
            rc = infer_ops::reshape_and_cache<bfloat16, int>(s.ctx, s(k_emb_), s(v_out_), s(k_cache_), s(v_cache_),
                                                             slots.data(), tokens, paging_.blocks(), kKvHeads, kHeadDim,
                                                             kHeadDim, kBlockSize);
        return rc;
    };
    const std::initializer_list<Use> inputs = {{qkv_, tokens * kQkvWidth},
                                               {rope_, 2 * rope_len_ * kHeadDim, 2 * tokens * kHeadDim},
                                               {block_table_, table_len, 0}};
    const std::initializer_list<Use> outputs = {{q_emb_, tokens * kQHeads * kHeadDim},
                                                {k_emb_, tokens * kv},
                                                {v_out_, tokens * kv},
                                                {k_cache_, cache, tokens * kv},
                                                {v_cache_, cache, tokens * kv}};
    if (prefill) {
        call(
            "split_rope_cache_kv_encoder", inputs, outputs,
            [&](const Side& s) {
                return infer_ops::split_rope_cache_kv_encoder<bfloat16, float, bfloat16, int, bfloat16>(
                    s.ctx, s(qkv_), s(rope_), s(block_table_), s(q_emb_), s(k_emb_), s(v_out_), s(k_cache_),
                    s(v_cache_), lod_p, rows_p, starts_p, batch_, 1, rope_len_, kQHeads, kKvHeads, kHeadDim, batch_,
                    kBlockSize, paging_.blocks_per_seq, "BLHD", "HLD", "NORMAL", nullptr, nullptr, nullptr, nullptr,
                    nullptr, nullptr);
            },
            composed);
    } else {
        call(
            "split_rope_cache_kv_decoder", inputs, outputs,
            [&](const Side& s) {
                return infer_ops::split_rope_cache_kv_decoder<bfloat16, float, bfloat16, float, int>(
                    s.ctx, s(qkv_), s(rope_), s(block_table_), s(q_emb_), s(k_emb_), s(v_out_), s(k_cache_),
                    s(v_cache_), lens_p, rows_p, batch_, 1, rope_len_, kQHeads, kKvHeads, kHeadDim, batch_, kBlockSize,
                    paging_.blocks_per_seq, "BLHD", "HLD", "NORMAL", nullptr, nullptr, nullptr, nullptr, false);
            },
            composed);
    }
}

void LayerDemo::moe_block(long tokens) {
    const long pairs = tokens * kTopK;
    call("rms_layer_norm", {{x_, tokens * kHidden}, {ffn_norm_, kHidden}}, {{h_, tokens * kHidden}},
         [&](const Side& s) {
             return infer_ops::rms_layer_norm<bfloat16, bfloat16>(s.ctx, s(x_), s(h_), tokens, kHidden, kEps,
                                                                  s(ffn_norm_), nullptr, nullptr, false);
         });
    timed_helper([&] { matmul(h_.host(), tokens, kHidden, w_router_.data(), kExperts, router_logits_.host()); });
    call("moe_softmax_topk", {{router_logits_, tokens * kExperts}},
         {{scores_, pairs}, {topk_, pairs}, {block_stat_, kRouterBlocks * kExperts}}, [&](const Side& s) {
             return infer_ops::moe_softmax_topk<float, float, int>(s.ctx, s(router_logits_), s(scores_), s(topk_),
                                                                   s(block_stat_), tokens, kExperts, kTopK,
                                                                   kRouterBlocks);
         });
    call("moe_ffn_pre_sorted", {{h_, tokens * kHidden}, {topk_, pairs}, {block_stat_, kRouterBlocks * kExperts}},
         {{sorted_, pairs * kHidden}, {moe_index_, pairs}, {expert_m_, kExperts}, {expert_lod_, kExperts + 1}},
         [&](const Side& s) {
             return infer_ops::moe_ffn_pre_sorted<bfloat16, int>(s.ctx, s(h_), s(topk_), s(block_stat_), s(sorted_),
                                                                 s(moe_index_), s(expert_m_), s(expert_lod_), tokens,
                                                                 kHidden, kExperts, kTopK, kRouterBlocks);
         });
    // Each expert's rows through its own weights: gate and up halves in one product.
    const int* lod = expert_lod_.host();
    timed_helper([&] {
        std::vector<float> y(static_cast<std::size_t>(pairs * 2 * kInter));
        for (long e = 0; e < kExperts; ++e)
            matmul(sorted_.host() + lod[e] * kHidden, lod[e + 1] - lod[e], kHidden,
                   w_up_.data() + e * kHidden * 2 * kInter, 2 * kInter, y.data() + lod[e] * 2 * kInter);
        infer_ops::narrow(y.data(), gate_up_.host(), pairs * 2 * kInter);
    });
    call("swiglu", {{gate_up_, pairs * 2 * kInter}}, {{act_, pairs * kInter}}, [&](const Side& s) {
        return infer_ops::swiglu<bfloat16>(s.ctx, s(gate_up_), nullptr, s(act_), {pairs, 2 * kInter}, 1, true);
    });
    timed_helper([&] {
        std::vector<float> y(static_cast<std::size_t>(pairs * kHidden));
        for (long e = 0; e < kExperts; ++e)
            matmul(act_.host() + lod[e] * kInter, lod[e + 1] - lod[e], kInter, w_down_.data() + e * kInter * kHidden,
                   kHidden, y.data() + lod[e] * kHidden);
        infer_ops::narrow(y.data(), expert_out_.host(), pairs * kHidden);
    });
    call("moe_ffn_post_fusion", {{expert_out_, pairs * kHidden}, {moe_index_, pairs}, {scores_, pairs}},
         {{moe_out_, tokens * kHidden}}, [&](const Side& s) {
             return infer_ops::moe_ffn_post_fusion<bfloat16, int, float, float>(
                 s.ctx, s(expert_out_), s(moe_index_), s(scores_), nullptr, s(moe_out_), tokens, kHidden, kTopK);
         });
    timed_helper([&] { residual_add(x_.host(), moe_out_.host(), tokens * kHidden); });
}

std::vector<int> LayerDemo::sample(const std::vector<int>& lod, long step) {
    timed_helper([&] {
        for (long b = 0; b < batch_; ++b)
            std::copy(x_.host() + (lod[b + 1] - 1) * kHidden, x_.host() + lod[b + 1] * kHidden,
                      last_.host() + b * kHidden);
    });
    call("rms_layer_norm", {{last_, batch_ * kHidden}, {final_norm_, kHidden}}, {{last_normed_, batch_ * kHidden}},
         [&](const Side& s) {
             return infer_ops::rms_layer_norm<bfloat16, bfloat16>(s.ctx, s(last_), s(last_normed_), batch_, kHidden,
                                                                  kEps, s(final_norm_), nullptr, nullptr, false);
         });
    timed_helper([&] {
        std::vector<float> logits(static_cast<std::size_t>(batch_ * kVocab));
        matmul(last_normed_.host(), batch_, kHidden, w_lm_.data(), kVocab, logits.data());
        softmax_rows(logits.data(), batch_, kVocab, probs_.host());
    });
    // One coefficient per request and step, from the request's own seeded stream.
    for (long b = 0; b < batch_; ++b)
        draws_.host()[b] = 0.5f + 0.5f * uniform(o_.seed, kDraw + 16 * static_cast<std::uint64_t>(b),
                                                 static_cast<std::uint64_t>(step));
    std::fill(top_p_ids_.host(), top_p_ids_.host() + batch_, -1);
    call("top_p_sampling", {{probs_, batch_ * kVocab}, {top_ps_, batch_}, {draws_, batch_}},
         {{top_p_ids_, batch_}, {top_p_values_, batch_}}, [&](const Side& s) {
             return infer_ops::top_p_sampling<float, int>(s.ctx, s(probs_), s(top_ps_), s(draws_), s(top_p_ids_),
                                                          batch_, kVocab, s(top_p_values_), nullptr);
         });
    return {top_p_ids_.host(), top_p_ids_.host() + batch_};
}

std::vector<int> LayerDemo::forward(const std::vector<int>& tokens, const std::vector<int>& lod,
                                    const std::vector<long>& first_pos, long step) {
    const long n = lod.back();
    timed_helper([&] {
        for (long t = 0; t < n; ++t)
            for (long i = 0; i < kHidden; ++i)
                x_.host()[t * kHidden + i] = bfloat16(uniform(
                    o_.seed, kEmbed + 16 * static_cast<std::uint64_t>(tokens[t]), static_cast<std::uint64_t>(i)));
    });
    call("rms_layer_norm", {{x_, n * kHidden}, {attn_norm_, kHidden}}, {{h_, n * kHidden}}, [&](const Side& s) {
        return infer_ops::rms_layer_norm<bfloat16, bfloat16>(s.ctx, s(x_), s(h_), n, kHidden, kEps, s(attn_norm_),
                                                             nullptr, nullptr, false);
    });
    timed_helper([&] {
        std::vector<float> y(static_cast<std::size_t>(n * kQkvWidth));
        matmul(h_.host(), n, kHidden, w_qkv_.data(), kQkvWidth, y.data());
        infer_ops::narrow(y.data(), qkv_.host(), n * kQkvWidth);
    });
    front_end(n, lod, first_pos);
    timed_helper([&] {
        std::vector<bfloat16> attn(static_cast<std::size_t>(n * kQHeads * kHeadDim));
        attention(q_emb_.host(), k_cache_.host(), v_cache_.host(), paging_, lod, first_pos, attn.data());
        std::vector<float> o(static_cast<std::size_t>(n * kHidden));
        matmul(attn.data(), n, kQHeads * kHeadDim, w_out_.data(), kHidden, o.data());
        residual_add(x_.host(), o.data(), n * kHidden);
    });
    moe_block(n);
    return sample(lod, step);
}

int LayerDemo::run() {
    std::printf(
        "libtsuops %s: one mixture-of-experts decoder layer on the emulated TSU3 device (%d clusters x 64 "
        "cores on %d host threads), every operator call also on the host reference path\n",
        infer_ops::version(), dev_.ncluster, g_threads);
    std::printf(
        "model: hidden %ld, %ld query and %ld key/value heads of %ld, %ld experts (top %ld, intermediate "
        "%ld), vocabulary %ld; weights from seed %llu\n",
        kHidden, kQHeads, kKvHeads, kHeadDim, kExperts, kTopK, kInter, kVocab,
        static_cast<unsigned long long>(o_.seed));
    std::printf("batch: %ld sequences of", batch_);
    for (long p : o_.prompts) std::printf(" %ld", p);
    std::printf(" prompt tokens, then %ld decode steps; paged bfloat16 cache of %ld blocks of %ld\n", o_.decode_steps,
                paging_.blocks(), kBlockSize);
    if (tsuemu::sync_mode()) std::printf("the runtime runs synchronously: each launch is timed on its own\n");

    std::vector<std::vector<int>> generated(static_cast<std::size_t>(batch_));
    std::string failure;
    try {
        // Prefill: every prompt token, each sequence from position 0.
        phase_ = "prefill";
        std::vector<int> lod{0}, prompt;
        for (long b = 0; b < batch_; ++b) {
            lod.push_back(lod.back() + static_cast<int>(o_.prompts[b]));
            for (long j = 0; j < o_.prompts[b]; ++j)
                prompt.push_back(static_cast<int>(
                    mix(o_.seed ^ mix(kPrompt + 16 * static_cast<std::uint64_t>(b)) ^ static_cast<std::uint64_t>(j)) %
                    static_cast<std::uint64_t>(kVocab)));
        }
        std::vector<int> next = forward(prompt, lod, std::vector<long>(static_cast<std::size_t>(batch_), 0), 0);
        // Decode: the token just sampled, one per sequence, at the end of it.
        phase_ = "decode";
        std::vector<int> one_each(static_cast<std::size_t>(batch_ + 1));
        std::iota(one_each.begin(), one_each.end(), 0);
        for (long step = 0; step <= o_.decode_steps; ++step) {
            for (long b = 0; b < batch_; ++b) generated[b].push_back(next[b]);
            if (step == o_.decode_steps) break;
            std::vector<long> pos(static_cast<std::size_t>(batch_));
            for (long b = 0; b < batch_; ++b) pos[b] = o_.prompts[b] + step;
            next = forward(next, one_each, pos, step + 1);
        }
    } catch (const Failed& f) {
        failure = f.what;
    }
    report(failure);
    if (failure.empty()) {
        const bool same_draws = std::all_of(records_.begin(), records_.end(), [](const OpRecord& r) {
            return r.op != "top_p_sampling" || (r.differing_calls == 0 && r.max_ulp == 0);
        });
        std::printf("\nsampled tokens (%s):\n", same_draws ? "the host reference path drew the same in every step"
                                                           : "the device's; the host reference path drew others");
        for (long b = 0; b < batch_; ++b) {
            std::printf("  sequence %ld (%ld prompt tokens):", b, o_.prompts[b]);
            for (int t : generated[b]) std::printf(" %d", t);
            std::printf("\n");
        }
    }
    long calls = 0, launches = 0;
    long differing = 0;
    bool exact = true;
    for (const auto& r : records_) {
        calls += r.calls;
        differing += r.differing_calls;
        launches += r.launches;
        exact = exact && r.max_ulp == 0;
    }
    std::printf("\ndevice launches: %ld\n", launches);
    if (!o_.trace.empty() && !write_trace()) {
        std::printf("verdict: FAIL: the trace file %s could not be written\n", o_.trace.c_str());
        return 1;
    }
    if (!failure.empty()) {
        std::printf("verdict: FAIL: %s\n", failure.c_str());
        return 1;
    }
    if (differing > 0) {
        std::printf(
            "verdict: FAIL: %ld of %s gave device results that differ from the reference beyond what the "
            "documentation allows\n",
            differing, count_of(calls, "operator call").c_str());
        return 1;
    }
    std::printf("verdict: PASS: %ld operator calls, %ld launches, every device result %s\n", calls, launches,
                exact ? "equal to its reference bit for bit" : "within what its operator's documentation allows");
    return 0;
}

void LayerDemo::report(const std::string& failure) {
    std::printf("\n%-8s %-28s %6s %8s %10s %9s %8s %9s  %s\n", "phase", "operator", "calls", "launches", "device ms",
                "us/call", "GB/s", "ref ms", "device against reference");
    OpRecord total;
    bool any_allowed = false;
    for (const auto& r : records_) {
        std::string verdict = "bit-exact";
        if (r.differing_calls > 0) {
            verdict = "DIFFERS in " + count_of(r.differing_calls, "call") + ", " + largest(r.max_ulp);
        } else if (r.max_ulp > 0) {
            char s[96];
            std::snprintf(s, sizeof s, "within %g ulp (allowed)", r.max_ulp);
            verdict = s;
            any_allowed = true;
        }
        std::printf("%-8s %-28s %6ld %8ld %10.3f %9.1f %8.2f %9.3f  %s\n", r.phase.c_str(), r.op.c_str(), r.calls,
                    r.launches, r.device_s * 1e3, r.device_s * 1e6 / static_cast<double>(r.calls),
                    r.bytes / r.device_s * 1e-9, r.reference_s * 1e3, verdict.c_str());
        total.calls += r.calls;
        total.launches += r.launches;
        total.device_s += r.device_s;
        total.reference_s += r.reference_s;
        total.bytes += r.bytes;
    }
    if (total.calls > 0)
        std::printf("%-8s %-28s %6ld %8ld %10.3f %9.1f %8.2f %9.3f\n", "", "all operators", total.calls, total.launches,
                    total.device_s * 1e3, total.device_s * 1e6 / static_cast<double>(total.calls),
                    total.bytes / total.device_s * 1e-9, total.reference_s * 1e3);
    std::printf("demo helpers (embeddings, matrix products, attention, softmax, residuals; in no row above): %.1f ms\n",
                helper_s_ * 1e3);
    std::printf(
        "the bfloat16 front ends have no host path of their own: their reference is cpu_ops::split, then\n"
        "vsl_rotary_embedding_gptj and reshape_and_cache on the host, which the front ends are documented to be\n");
    if (any_allowed)
        for (const auto& a : kAllowances) std::printf("allowed: %s within %g ulp: %s\n", a.op, a.ulp, a.why);

    std::printf("\nkernels chosen (clusters x cores, launches):\n");
    for (const auto& r : records_)
        for (const auto& [kernel, n] : r.kernels)
            std::printf("  %-8s %-28s %s  x%ld\n", r.phase.c_str(), r.op.c_str(), kernel.c_str(), n);
    for (const auto& m : mismatches_) std::printf("%s\n", m.c_str());
    if (!failure.empty()) std::printf("stopped: %s\n", failure.c_str());
}

// Chrome trace-event JSON: one complete event per device launch, times in
// microseconds from the start of the demo.
bool LayerDemo::write_trace() const {
    std::FILE* f = std::fopen(o_.trace.c_str(), "w");
    if (f == nullptr) return false;
    std::fprintf(f, "{\"displayTimeUnit\":\"ms\",\"traceEvents\":[");
    for (std::size_t i = 0; i < trace_.size(); ++i) {
        const TraceEvent& e = trace_[i];
        std::fprintf(f,
                     "%s\n{\"name\":%s,\"cat\":%s,\"ph\":\"X\",\"ts\":%.3f,\"dur\":%.3f,\"pid\":1,\"tid\":1,"
                     "\"args\":{\"operator\":%s,\"grid\":\"%dx%d\"}}",
                     i == 0 ? "" : ",", json_string(e.kernel).c_str(), json_string(e.phase).c_str(),
                     (e.start - origin_) * 1e6, e.duration * 1e6, json_string(e.op).c_str(), e.clusters, e.cores);
    }
    std::fprintf(f, "\n]}\n");
    return std::fclose(f) == 0;
}

}  // namespace

int main(int argc, char** argv) {
    Options o;
    bool help = false;
    const std::string refused = parse(argc, argv, &o, &help);
    if (help) {
        usage(stdout);
        return 0;
    }
    if (!refused.empty()) {
        std::fprintf(stderr, "layer_demo: %s\n\n", refused.c_str());
        usage(stderr);
        return 2;
    }
    g_threads = o.threads > 0 ? o.threads : allowed_cpus();
    if (o.threads > 0) use_cpus(o.threads);
    if (!o.trace.empty()) tsuemu::set_sync_override(1);
    LayerDemo demo(o);
    return demo.run();
}
