#include "support/capture.h"

namespace tsuops_test {

namespace {

// The platform has no getters for its sinks, so the captures keep the chain
// themselves. Tests install captures from the test's own thread only.
LogCapture* g_log = nullptr;
bool g_echo = true;
LaunchCapture* g_launch = nullptr;
TraceCapture* g_trace = nullptr;

void install_log(LogCapture* c) {
    if (c) {
        orvane::tsu::api::set_log_sink([c](const LogRecord& r) { c->receive(r); });
    } else {
        orvane::tsu::api::set_log_sink({});
    }
}

void install_launch(LaunchCapture* c) {
    if (c) {
        tsuemu::set_launch_observer([c](const LaunchRecord& r) { c->receive(r); });
    } else {
        tsuemu::set_launch_observer({});
    }
}

void install_trace(TraceCapture* c) {
    if (c) {
        orvane::tsu::api::set_trace_sink([c](const function_info& i) { c->receive(i); });
    } else {
        orvane::tsu::api::set_trace_sink({});
    }
}

}  // namespace

// ---- LogCapture -------------------------------------------------------------------
LogCapture::LogCapture() : previous_(g_log), previous_echo_(g_echo) {
    g_log = this;
    g_echo = false;
    install_log(this);
    orvane::tsu::api::set_log_echo(false);
}

LogCapture::~LogCapture() {
    g_log = previous_;
    g_echo = previous_echo_;
    install_log(previous_);
    orvane::tsu::api::set_log_echo(previous_echo_);
}

void LogCapture::receive(const LogRecord& r) {
    std::lock_guard<std::mutex> lk(mu_);
    records_.push_back(r);
}

std::vector<LogRecord> LogCapture::records() const {
    std::lock_guard<std::mutex> lk(mu_);
    return records_;
}

std::size_t LogCapture::count(std::string_view kind) const {
    std::lock_guard<std::mutex> lk(mu_);
    std::size_t n = 0;
    for (const auto& r : records_) n += r.kind == kind;
    return n;
}

std::vector<LogRecord> LogCapture::of_kind(std::string_view kind) const {
    std::lock_guard<std::mutex> lk(mu_);
    std::vector<LogRecord> out;
    for (const auto& r : records_) {
        if (r.kind == kind) out.push_back(r);
    }
    return out;
}

std::vector<LogRecord> LogCapture::failures() const {
    std::lock_guard<std::mutex> lk(mu_);
    std::vector<LogRecord> out;
    for (const auto& r : records_) {
        if (r.kind != "memory") out.push_back(r);
    }
    return out;
}

void LogCapture::clear() {
    std::lock_guard<std::mutex> lk(mu_);
    records_.clear();
}

// ---- LaunchCapture ------------------------------------------------------------------
LaunchCapture::LaunchCapture() : previous_(g_launch) {
    g_launch = this;
    install_launch(this);
}

LaunchCapture::~LaunchCapture() {
    g_launch = previous_;
    install_launch(previous_);
}

void LaunchCapture::receive(const LaunchRecord& r) {
    std::lock_guard<std::mutex> lk(mu_);
    records_.push_back(r);
}

std::vector<LaunchRecord> LaunchCapture::records() const {
    std::lock_guard<std::mutex> lk(mu_);
    return records_;
}

std::vector<std::string> LaunchCapture::kernels() const {
    std::lock_guard<std::mutex> lk(mu_);
    std::vector<std::string> out;
    for (const auto& r : records_) out.push_back(r.kernel);
    return out;
}

std::size_t LaunchCapture::size() const {
    std::lock_guard<std::mutex> lk(mu_);
    return records_.size();
}

void LaunchCapture::clear() {
    std::lock_guard<std::mutex> lk(mu_);
    records_.clear();
}

// ---- TraceCapture -------------------------------------------------------------------
TraceCapture::TraceCapture() : previous_(g_trace) {
    g_trace = this;
    install_trace(this);
}

TraceCapture::~TraceCapture() {
    g_trace = previous_;
    install_trace(previous_);
}

void TraceCapture::receive(const function_info& info) {
    std::lock_guard<std::mutex> lk(mu_);
    records_.push_back(info);
}

std::vector<function_info> TraceCapture::records() const {
    std::lock_guard<std::mutex> lk(mu_);
    return records_;
}

std::size_t TraceCapture::size() const {
    std::lock_guard<std::mutex> lk(mu_);
    return records_.size();
}

void TraceCapture::clear() {
    std::lock_guard<std::mutex> lk(mu_);
    records_.clear();
}

// ---- names ----------------------------------------------------------------------------
std::string kernel_family(const std::string& kernel) {
    // Cut at the first '<' or '(' at nesting depth 0, then drop the scope.
    std::size_t end = kernel.size();
    for (std::size_t i = 0; i < kernel.size(); ++i) {
        if (kernel[i] == '<' || kernel[i] == '(') {
            end = i;
            break;
        }
    }
    const std::string qualified = kernel.substr(0, end);
    const std::size_t colon = qualified.rfind("::");
    return colon == std::string::npos ? qualified : qualified.substr(colon + 2);
}

}  // namespace tsuops_test
