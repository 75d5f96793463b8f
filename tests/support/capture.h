// Scoped capture of what the platform reports: log records, launches and
// traces. Captures of one kind nest; the innermost one receives.
#pragma once

#include <cstddef>
#include <cstring>
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

// Installs a log sink and turns the standard-error echo off; restores the
// previous sink and echo setting when it goes.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<LogRecord> records() const;
    std::size_t count(std::string_view kind) const;
    std::vector<LogRecord> of_kind(std::string_view kind) const;
    // Records of every kind except "memory", which valid regions produce on
    // every call: what a failure test usually wants to see.
    std::vector<LogRecord> failures() const;
    void clear();

    void receive(const LogRecord& r);

private:
    mutable std::mutex mu_;
    std::vector<LogRecord> records_;
    LogCapture* previous_;
    bool previous_echo_;
};

// Installs a launch observer; restores the previous capture when it goes.
class LaunchCapture {
public:
    LaunchCapture();
    ~LaunchCapture();
    LaunchCapture(const LaunchCapture&) = delete;
    LaunchCapture& operator=(const LaunchCapture&) = delete;

    std::vector<LaunchRecord> records() const;
    // Demangled kernel names in launch order.
    std::vector<std::string> kernels() const;
    std::size_t size() const;
    void clear();

    // The argument at a byte offset of a launch's packed block. An offset
    // past what the launch set fails the test and gives T{}.
    template <class T>
    static T arg(const LaunchRecord& r, std::size_t offset) {
        T v{};
        if (offset > r.args.size() || sizeof(T) > r.args.size() - offset) {
            ADD_FAILURE() << "argument of " << sizeof(T) << " bytes at offset " << offset << " lies past the "
                          << r.args.size() << " bytes that launch " << r.kernel << " set";
            return v;
        }
        std::memcpy(&v, r.args.data() + offset, sizeof(T));
        return v;
    }

    void receive(const LaunchRecord& r);

private:
    mutable std::mutex mu_;
    std::vector<LaunchRecord> records_;
    LaunchCapture* previous_;
};

// Installs a trace sink; restores the previous capture when it goes.
class TraceCapture {
public:
    TraceCapture();
    ~TraceCapture();
    TraceCapture(const TraceCapture&) = delete;
    TraceCapture& operator=(const TraceCapture&) = delete;

    std::vector<function_info> records() const;
    std::size_t size() const;
    void clear();

    void receive(const function_info& info);

private:
    mutable std::mutex mu_;
    std::vector<function_info> records_;
    TraceCapture* previous_;
};

// "tsu3::infer_constant<float>(char*, long, float)" -> "infer_constant":
// the kernel's family name without namespace, template arguments or
// parameters.
std::string kernel_family(const std::string& kernel);

}  // namespace tsuops_test
