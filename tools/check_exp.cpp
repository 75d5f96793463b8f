// Checks the kernels' vector exp against the math library's exp on every
// double that a float widens to (all 2^32 bit patterns, NaNs included), and
// the vector SiLU product against the scalar one with every float as the
// gate. Not run by the tests: a full pass takes minutes of processor time.
//
//   check_exp [threads]
//
// Prints the form the vector exp took in this process, the mismatches (the
// first few of each kind) and the time; exits 0 when everything agrees.
#include <algorithm>
#include <atomic>
#include <bit>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <thread>
#include <vector>

#include "kernels/act/silu_math.h"

namespace {

namespace act = tsuops::kernels::act;

constexpr std::uint64_t kBlock = 1 << 16;
constexpr std::uint64_t kBlocks = (std::uint64_t{1} << 32) / kBlock;
constexpr int kShown = 5;

std::atomic<std::uint64_t> next_block{0};
std::atomic<std::uint64_t> exp_bad{0}, silu_bad{0};
std::mutex print_mu;

bool same(double a, double b) { return std::bit_cast<std::uint64_t>(a) == std::bit_cast<std::uint64_t>(b); }
bool same(float a, float b) { return std::bit_cast<std::uint32_t>(a) == std::bit_cast<std::uint32_t>(b); }

void report(std::atomic<std::uint64_t>& counter, const char* what, std::uint32_t bits, double got, double want) {
    if (counter++ >= kShown) return;
    std::lock_guard<std::mutex> lk(print_mu);
    std::printf("%s mismatch at float bits 0x%08x: %a, expected %a\n", what, bits, got, want);
}

void work() {
    std::vector<double> x(kBlock), y(kBlock);
    std::vector<float> gate(kBlock), other(kBlock), out(kBlock);
    for (std::uint64_t b; (b = next_block++) < kBlocks;) {
        for (std::uint64_t i = 0; i < kBlock; ++i) {
            gate[i] = std::bit_cast<float>(static_cast<std::uint32_t>(b * kBlock + i));
            other[i] = static_cast<float>(i % 5) - 1.75f;
            x[i] = gate[i];
        }
        act::exp_array(x.data(), y.data(), static_cast<long>(kBlock));
        act::silu_products(gate.data(), other.data(), out.data(), static_cast<long>(kBlock));
        for (std::uint64_t i = 0; i < kBlock; ++i) {
            const auto bits = static_cast<std::uint32_t>(b * kBlock + i);
            const double want = std::exp(x[i]);
            if (!same(y[i], want)) report(exp_bad, "exp", bits, y[i], want);
            const float product = act::silu_product(gate[i], other[i]);
            if (!same(out[i], product)) report(silu_bad, "silu product", bits, out[i], product);
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    const unsigned threads = argc > 1 ? static_cast<unsigned>(std::atoi(argv[1]))
                                      : std::max(1u, std::thread::hardware_concurrency());
    if (threads == 0) {
        std::fprintf(stderr, "usage: check_exp [threads]\n");
        return 2;
    }
    std::printf("vector exp form: %s\n", act::exp_form_name(act::exp_form()));
    const auto start = std::chrono::steady_clock::now();
    std::vector<std::thread> pool;
    for (unsigned t = 0; t < threads; ++t) pool.emplace_back(work);
    for (auto& t : pool) t.join();
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::printf("all 2^32 floats: %llu exp mismatches, %llu silu product mismatches; %.1f s on %u threads\n",
                static_cast<unsigned long long>(exp_bad.load()), static_cast<unsigned long long>(silu_bad.load()),
                seconds, threads);
    return exp_bad == 0 && silu_bad == 0 ? 0 : 1;
}
