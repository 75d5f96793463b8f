// Environment switches of the library. Each is read once, on its first use,
// and its meaning kept as a value: a later setenv or unsetenv changes
// nothing, and no pointer into the environment is kept.
#pragma once

#include <cstdlib>
#include <cstring>
#include <mutex>

namespace infer_ops::frame {

class env_switch {
public:
    enum class rule {
        exactly_one,  // on only when the text is exactly "1"
        nonzero,      // on when strtol in base 10 gives non-zero
    };

    constexpr env_switch(const char* name, rule r) : name_(name), rule_(r) {}
    env_switch(const env_switch&) = delete;
    env_switch& operator=(const env_switch&) = delete;

    bool on() const {
        std::call_once(once_, [this] { on_ = read(); });
        return on_;
    }

private:
    bool read() const {
        const char* v = std::getenv(name_);
        if (v == nullptr) return false;
        if (rule_ == rule::exactly_one) return std::strcmp(v, "1") == 0;
        return std::strtol(v, nullptr, 10) != 0;
    }

    const char* name_;
    rule rule_;
    mutable std::once_flag once_;
    mutable bool on_ = false;
};

}  // namespace infer_ops::frame
