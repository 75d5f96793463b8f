// Scoped capture of what the platform reports: log records, launches and
// traces. Captures of one kind nest; the innermost one receives, and each
// hands the sink back to the one it displaced when it goes.
#pragma once

#include <cstddef>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include <tsuapi/tsuapi.h>
#include <tsurt/emulator.h>

namespace tsuops_test {

using orvane::tsu::api::function_info;
using orvane::tsu::api::LogRecord;
using tsuemu::LaunchRecord;

template <class R, void (*set_sink)(std::function<void(const R&)>)>
class Capture {
public:
    Capture() : previous_(current_) { install(current_ = this); }
    ~Capture() { install(current_ = previous_); }

    std::vector<R> records() const {
        std::lock_guard<std::mutex> lk(mu_);
        return records_;
    }
    std::size_t size() const { return records().size(); }
    void receive(const R& r) {
        std::lock_guard<std::mutex> lk(mu_);
        records_.push_back(r);
    }

protected:
    Capture* const previous_;

private:
    // The platform has no getters for its sinks, so the captures keep the
    // chain themselves. Tests install captures from the test's own thread only.
    static void install(Capture* c) {
        set_sink(c ? std::function<void(const R&)>([c](const R& r) { c->receive(r); }) : nullptr);
    }
    static inline Capture* current_ = nullptr;
    mutable std::mutex mu_;
    std::vector<R> records_;
};

// Also turns the standard-error echo of log calls off while any capture lives.
class LogCapture : public Capture<LogRecord, orvane::tsu::api::set_log_sink> {
public:
    LogCapture() { orvane::tsu::api::set_log_echo(false); }
    ~LogCapture() { orvane::tsu::api::set_log_echo(previous_ == nullptr); }

    std::vector<LogRecord> of_kind(std::string_view kind) const {
        auto v = records();
        std::erase_if(v, [&](const LogRecord& r) { return r.kind != kind; });
        return v;
    }
    std::size_t count(std::string_view kind) const { return of_kind(kind).size(); }
    // Records of every kind except "memory", which valid regions produce on
    // every call: what a failure test usually wants to see.
    std::vector<LogRecord> failures() const {
        auto v = records();
        std::erase_if(v, [](const LogRecord& r) { return r.kind == "memory"; });
        return v;
    }
};

class LaunchCapture : public Capture<LaunchRecord, tsuemu::set_launch_observer> {
public:
    // Demangled kernel names in launch order.
    std::vector<std::string> kernels() const {
        std::vector<std::string> out;
        for (const auto& r : records()) out.push_back(r.kernel);
        return out;
    }

    // The argument at a byte offset of a launch's packed block. An offset
    // past what the launch set fails the test and gives T{}.
    template <class T>
    static T arg(const LaunchRecord& r, std::size_t offset) {
        T v{};
        if (offset <= r.args.size() && sizeof(T) <= r.args.size() - offset) {
            std::memcpy(&v, r.args.data() + offset, sizeof(T));
        } else {
            ADD_FAILURE() << "argument of " << sizeof(T) << " bytes at offset " << offset << " lies past the "
                          << r.args.size() << " bytes that launch " << r.kernel << " set";
        }
        return v;
    }
};

using TraceCapture = Capture<function_info, orvane::tsu::api::set_trace_sink>;

// "tsu3::infer_constant<float>(char*, long, float)" -> "infer_constant":
// the kernel's family name without namespace, template arguments or
// parameters.
inline std::string kernel_family(const std::string& kernel) {
    const std::string qualified = kernel.substr(0, kernel.find_first_of("<("));
    const std::size_t colon = qualified.rfind("::");
    return colon == std::string::npos ? qualified : qualified.substr(colon + 2);
}

}  // namespace tsuops_test
