// Host library of the TSU platform: contexts, the per-call guard, scratch
// pools, logging, transfers and the host thread pool.
#pragma once

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

namespace orvane::tsu::api {

enum class DeviceType : std::uint32_t { CPU = 0, TSU1, TSU2, TSU3, TSU4, TSU5 };

// Element types of a region's detail record.
enum class Dtype : int {
    FLOAT32 = 0, FLOAT16 = 1, INT32 = 2, INT16 = 3, INT8 = 4, INT64 = 5, BOOL = 6, UINT8 = 7,
    BFLOAT16 = 8, UINT32 = 9, DOUBLE = 10, INT_WITH_LL = 11, INT4 = 12, INT4_WO_INT8 = 13,
    INT4_WO_INT15 = 14, UINT4 = 15, XBFLOAT16 = 16,
};

class Context;
class ContextImpl;

struct memory_region_detail {
    Dtype dtype = Dtype::FLOAT32;
    std::string name;
    int opcount = 0;
    std::string position;
    std::string dump_position;
    std::vector<char> data;
    std::uint64_t checksum = 0;  // platform word
    int dumped = 0;              // platform word
    std::string note;
    bool checksum_accelerate = false;
    std::uint64_t log_sequence = 0;  // platform word
    const int* extra = nullptr;
};

// A tensor's address, extent and direction. The platform reads it in
// _log_memory and keeps copies in ContextStackGuard::recorded_regions; the
// operator library defines init_detail and is_valid.
struct memory_region {
    const void* ptr = nullptr;
    std::vector<long> shape;
    std::vector<long> strides;
    bool is_input = false;
    int checksum_level = 0;
    memory_region_detail* detail = nullptr;

    memory_region(bool input, const void* p, long len, int level)
        : ptr(p), shape{len}, strides{1}, is_input(input), checksum_level(level) {}
    memory_region(const memory_region& o)
        : ptr(o.ptr), shape(o.shape), strides(o.strides), is_input(o.is_input),
          checksum_level(o.checksum_level),
          detail(o.detail ? new memory_region_detail(*o.detail) : nullptr) {}
    memory_region& operator=(const memory_region& o) {
        if (this != &o) {
            memory_region tmp(o);
            std::swap(ptr, tmp.ptr);
            shape.swap(tmp.shape);
            strides.swap(tmp.strides);
            is_input = tmp.is_input;
            checksum_level = tmp.checksum_level;
            std::swap(detail, tmp.detail);
        }
        return *this;
    }
    ~memory_region() { delete detail; }

    template <typename T>
    void init_detail(bool want_detail, int opcount, const char* file, int line, const char* name,
                     bool checksum_accelerate, const int* extra);
    template <typename T>
    bool is_valid(Context* ctx);
};

// The parameter record of one operator call.
struct function_info {
    std::unordered_map<void*, int> pointer_index;
    int alias_counter = 0;
    std::vector<std::string> params;
    std::string name;
    std::vector<std::string> dtypes;

    // Defined by the operator library (parameter dump).
    template <typename T>
    void add_param(Context* ctx, T* ptr);
    template <typename T>
    void add_param(Context* ctx, std::vector<T*> ptrs);
    void add_param(Context* ctx, std::string s);
};

// A C string prints between double quotes, unlike other pointers.
template <>
void function_info::add_param<char>(Context* ctx, char* str);

// A scratch pool with a stack discipline over one block of device memory.
class BufferMgr {
public:
    BufferMgr() = default;
    BufferMgr(const BufferMgr&) = delete;
    BufferMgr& operator=(const BufferMgr&) = delete;

    // Pushes a mark of the current top.
    void save();
    // `bytes` above the top (64-byte aligned), or null if the pool cannot serve.
    void* alloc(ContextImpl* impl, unsigned long bytes, void* stream);
    // Pops the last mark and gives back everything above it.
    void restore(void* stream);

    void reset(void* base, unsigned long capacity);
    void* base() const { return base_; }
    unsigned long capacity() const { return capacity_; }
    unsigned long top() const { return top_; }
    std::size_t depth() const { return marks_.size(); }

private:
    char* base_ = nullptr;
    unsigned long capacity_ = 0;
    unsigned long top_ = 0;
    std::vector<unsigned long> marks_;
};

struct ContextOptions {
    int ncluster = 8;
    int ngmx = 8;
    int max_ptr_size = 1024;
    std::uint32_t debug_flags = 0;
    std::uint32_t sim_dev_type = 0;
    unsigned long l3_pool_bytes = 4ul << 20;   // first-tried pool; 0: none
    unsigned long gm_pool_bytes = 64ul << 20;  // second-tried pool; 0: none
};

// Debug word bits of this platform beyond the gate bits that operators read.
inline constexpr std::uint32_t kDebugPrecisionCheck = 1u << 24;
inline constexpr std::uint32_t kDebugChecksumAccelerate = 1u << 25;

class Context {
public:
    ContextImpl* impl = nullptr;
    BufferMgr gm_mgr;
    BufferMgr l3_mgr;
    std::uint64_t l3_size = 0;
    std::uint32_t dev_type = 0;
    std::uint32_t sim_dev_type = 0;
    std::uint32_t debug_flags = 0;
    int ngmx = 0;
    int ncluster = 0;
    int max_ptr_size = 0;
    void* stream = nullptr;
    std::function<void*(unsigned long)> overload_alloc;
    std::function<void()> overload_free;
    std::function<void()> overload_enter;

    // Device contexts get a stream of their own and pools of the sizes asked
    // for; a pool whose memory cannot be had is absent (capacity 0).
    explicit Context(DeviceType dev_type = DeviceType::CPU, const ContextOptions& opts = {});
    // Drains the stream, then gives back pools and stream.
    ~Context();
    Context(const Context&) = delete;
    Context& operator=(const Context&) = delete;

    std::uint32_t debug_level() const { return debug_flags; }
};

// The per-call record, on the stack of each operator's entry function.
class ContextStackGuard {
public:
    function_info info;
    std::map<std::string, memory_region> recorded_regions;

    ContextStackGuard(Context* ctx, std::string tag);
    ~ContextStackGuard();
    ContextStackGuard(const ContextStackGuard&) = delete;
    ContextStackGuard& operator=(const ContextStackGuard&) = delete;

    void profile(const std::string& name);
    void trace();

    Context* context() const { return ctx_; }
    const std::string& tag() const { return tag_; }

private:
    Context* ctx_;
    std::string tag_;
};

// One log call as a sink receives it.
struct LogRecord {
    std::string kind;  // compare_fail, invalid_shape, unimplement, kernel_fail, invalid_memory, memory
    std::string file;
    int line = 0;
    std::vector<std::string> fields;
};

// Every _log_* call also goes to the sink, if set; an empty function removes it.
void set_log_sink(std::function<void(const LogRecord&)> sink);
// Whether log calls also write their line to standard error (default true).
void set_log_echo(bool on);
// Receives each record that trace() emits; without one trace() writes to stderr.
void set_trace_sink(std::function<void(const function_info&)> sink);

void _log_memory(ContextStackGuard& guard, Context* ctx, memory_region& region);
// Whether _log_memory has a use for a region without a detail record (this
// platform: a log sink is set). When it has none, a caller may leave out the
// region and the call; a region with a detail always goes to _log_memory.
bool _log_memory_wanted(Context* ctx) noexcept;
void _log_invalid_memory(Context* ctx, memory_region& region);
void _log_compare_fail(Context* ctx, const char* file, int line, const std::string& lhs,
                       const std::string& op, const std::string& rhs);
void _log_invalid_shape(Context* ctx, const char* file, int line, const std::vector<long>& shape);
void _log_invalid_shape(Context* ctx, const char* file, int line,
                        const std::initializer_list<long>& dims);
void _log_unimplement(Context* ctx, const char* file, int line);
void _log_kernel_fail(Context* ctx, const char* file, int line, int code);

// "dir/file.cpp:42": the last two components of the path and the line.
std::string short_file_path(const char* file, int line);
// The same position usable in a file name: "dir_file_cpp_42".
std::string npy_short_file_path(const char* file, int line);

// Transfers, ordered after the context's queued work; 0 on success.
int do_host2device(Context* ctx, const void* src, void* dst, long bytes);
int do_device2host(Context* ctx, const void* src, void* dst, long bytes);

// The context's running count of operator calls (guards opened).
int _get_ctx_opcount(Context* ctx);
// Bit 25 of the debug word.
bool _get_checksum_accelerate_flag(Context* ctx);

namespace cpu {
int get_thread_num();
int get_num_threads();
bool in_parallel_region();
namespace internal {
void set_thread_num(int id);
// Splits [begin, end) into chunks of at least `grain` (0: the pool chooses)
// across the pool; f(b, e) runs once per chunk. Nested calls run inline.
void invoke_parallel(long begin, long end, long grain, const std::function<void(long, long)>& f);
}  // namespace internal
}  // namespace cpu

}  // namespace orvane::tsu::api

namespace orvane::tsu::api_infrastructure {
// True when bit 24 of the debug word is set and the call was named
// (the gate was on at the profile phase).
bool should_check_precision(orvane::tsu::api::Context* ctx, const std::string& name);
}  // namespace orvane::tsu::api_infrastructure
