#include <atomic>
#include <cinttypes>
#include <cstdio>
#include <memory>
#include <mutex>

#include <tsuapi/tsuapi.h>

#include "internal.h"

namespace orvane::tsu::api {

namespace {

using LogSink = std::function<void(const LogRecord&)>;
using TraceSink = std::function<void(const function_info&)>;

std::mutex g_sink_mu;
std::shared_ptr<const LogSink> g_log_sink;
std::shared_ptr<const TraceSink> g_trace_sink;
std::atomic<bool> g_echo{true};

std::string join(const std::vector<std::string>& v, const char* sep) {
    std::string out;
    for (std::size_t i = 0; i < v.size(); ++i) {
        if (i) out += sep;
        out += v[i];
    }
    return out;
}

std::string dims_text(const std::vector<long>& dims) {
    std::string out = "{";
    for (std::size_t i = 0; i < dims.size(); ++i) {
        if (i) out += ", ";
        out += std::to_string(dims[i]);
    }
    return out + "}";
}

std::string hex(const void* p) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "0x%" PRIxPTR, reinterpret_cast<std::uintptr_t>(p));
    return buf;
}

// Set while a log sink is installed, so that a call with nothing to echo
// learns without the lock that nobody wants its record.
std::atomic<bool> g_has_log_sink{false};

// Writes the line and hands the record to the sink. `line` formats the text
// of the echo, and runs only when it is written.
template <class Line>
void emit(LogRecord rec, Line&& line, bool echo_line = true) {
    if (echo_line && g_echo.load(std::memory_order_relaxed)) {
        std::fprintf(stderr, "tsuapi: %s at %s: %s\n", rec.kind.c_str(),
                     short_file_path(rec.file.c_str(), rec.line).c_str(), line().c_str());
    }
    if (!g_has_log_sink.load(std::memory_order_acquire)) return;
    std::shared_ptr<const LogSink> sink;
    {
        std::lock_guard<std::mutex> lk(g_sink_mu);
        sink = g_log_sink;
    }
    if (sink) (*sink)(rec);
}

std::vector<std::string> region_fields(const memory_region& r) {
    std::vector<std::string> f;
    f.push_back(r.detail ? r.detail->name : std::string());
    f.push_back(hex(r.ptr));
    f.push_back(dims_text(r.shape));
    f.push_back(dims_text(r.strides));
    f.push_back(r.is_input ? "input" : "output");
    return f;
}

// Regions carry their source position only in a detail record.
void split_position(const memory_region& r, LogRecord& rec) {
    if (!r.detail) return;
    const std::string& pos = r.detail->position;
    const auto colon = pos.rfind(':');
    rec.file = pos.substr(0, colon);
    if (colon != std::string::npos) rec.line = std::atoi(pos.c_str() + colon + 1);
}

}  // namespace

void set_log_sink(std::function<void(const LogRecord&)> sink) {
    std::shared_ptr<const LogSink> next;
    if (sink) next = std::make_shared<const LogSink>(std::move(sink));
    std::lock_guard<std::mutex> lk(g_sink_mu);
    g_has_log_sink.store(next != nullptr, std::memory_order_release);
    g_log_sink = std::move(next);
}

void set_trace_sink(std::function<void(const function_info&)> sink) {
    std::shared_ptr<const TraceSink> next;
    if (sink) next = std::make_shared<const TraceSink>(std::move(sink));
    std::lock_guard<std::mutex> lk(g_sink_mu);
    g_trace_sink = std::move(next);
}

void set_log_echo(bool on) { g_echo.store(on); }

bool _log_memory_wanted(Context* /*ctx*/) noexcept { return g_has_log_sink.load(std::memory_order_acquire); }

void _log_memory(ContextStackGuard& /*guard*/, Context* ctx, memory_region& region) {
    if (region.detail) ++region.detail->log_sequence;
    // A valid region is news only when the call is being traced.
    const bool echo = region.detail != nullptr && g_echo.load(std::memory_order_relaxed);
    if (!echo && !_log_memory_wanted(ctx)) return;
    LogRecord rec{"memory", "", 0, region_fields(region)};
    split_position(region, rec);
    emit(std::move(rec), [&] { return "region " + join(region_fields(region), " "); }, echo);
}

void _log_invalid_memory(Context* /*ctx*/, memory_region& region) {
    LogRecord rec{"invalid_memory", "", 0, region_fields(region)};
    split_position(region, rec);
    emit(std::move(rec), [&] { return "invalid region " + join(region_fields(region), " "); });
}

void _log_compare_fail(Context* /*ctx*/, const char* file, int line, const std::string& lhs,
                       const std::string& op, const std::string& rhs) {
    emit(LogRecord{"compare_fail", file ? file : "", line, {lhs, op, rhs}},
         [&] { return "check failed: " + lhs + " " + op + " " + rhs; });
}

void _log_invalid_shape(Context* /*ctx*/, const char* file, int line, const std::vector<long>& shape) {
    std::vector<std::string> f;
    for (long d : shape) f.push_back(std::to_string(d));
    emit(LogRecord{"invalid_shape", file ? file : "", line, f}, [&] { return "invalid shape " + dims_text(shape); });
}

void _log_invalid_shape(Context* ctx, const char* file, int line, const std::initializer_list<long>& dims) {
    _log_invalid_shape(ctx, file, line, std::vector<long>(dims));
}

void _log_unimplement(Context* ctx, const char* file, int line) {
    const std::string dev = ctx ? std::to_string(ctx->dev_type) : std::string("?");
    emit(LogRecord{"unimplement", file ? file : "", line, {dev}}, [&] { return "no path for device type " + dev; });
}

void _log_kernel_fail(Context* /*ctx*/, const char* file, int line, int code) {
    emit(LogRecord{"kernel_fail", file ? file : "", line, {std::to_string(code)}},
         [&] { return "kernel launch failed with code " + std::to_string(code); });
}

std::string short_file_path(const char* file, int line) {
    std::string f = file ? file : "";
    std::size_t cut = f.rfind('/');
    if (cut != std::string::npos && cut > 0) {
        const std::size_t before = f.rfind('/', cut - 1);
        f = f.substr(before == std::string::npos ? 0 : before + 1);
    }
    return f + ":" + std::to_string(line);
}

std::string npy_short_file_path(const char* file, int line) {
    std::string s = short_file_path(file, line);
    for (char& c : s) {
        if (c == '/' || c == ':' || c == '.' || c == '\\' || c == ' ') c = '_';
    }
    return s;
}

namespace detail {

void emit_trace(const function_info& info) {
    std::shared_ptr<const TraceSink> sink;
    {
        std::lock_guard<std::mutex> lk(g_sink_mu);
        sink = g_trace_sink;
    }
    if (sink) {
        (*sink)(info);
        return;
    }
    std::fprintf(stderr, "tsuapi: trace %s<%s>(%s)\n", info.name.c_str(), join(info.dtypes, ", ").c_str(),
                 join(info.params, ", ").c_str());
}

}  // namespace detail

}  // namespace orvane::tsu::api
