#include "support/child_process.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

extern char** environ;

namespace tsuops_test {

namespace {

// Variables of the parent's test run that must not reach the child: sharding
// would make it skip the test asked for, an output file would be overwritten
// and brief output would hide the line that proves the test ran.
constexpr const char* kDroppedGtestVars[] = {"GTEST_SHARD_INDEX", "GTEST_TOTAL_SHARDS", "GTEST_SHARD_STATUS_FILE",
                                             "GTEST_OUTPUT",      "GTEST_BRIEF",        "GTEST_FILTER",
                                             "GTEST_REPEAT",      "GTEST_FAIL_FAST"};

std::string var_name(const char* entry) {
    const char* eq = std::strchr(entry, '=');
    return eq ? std::string(entry, eq) : std::string(entry);
}

std::vector<std::string> child_environment(const std::vector<std::pair<std::string, std::string>>& env,
                                           const std::vector<std::string>& unset) {
    std::vector<std::string> removed(unset.begin(), unset.end());
    removed.insert(removed.end(), std::begin(kDroppedGtestVars), std::end(kDroppedGtestVars));
    for (const auto& [name, value] : env) removed.push_back(name);

    std::vector<std::string> out;
    for (char** e = environ; *e != nullptr; ++e) {
        if (std::find(removed.begin(), removed.end(), var_name(*e)) == removed.end()) out.emplace_back(*e);
    }
    for (const auto& [name, value] : env) out.push_back(name + "=" + value);
    return out;
}

std::vector<char*> pointers(std::vector<std::string>& strings) {
    std::vector<char*> out;
    for (std::string& s : strings) out.push_back(s.data());
    out.push_back(nullptr);
    return out;
}

std::string describe(const std::string& filter, const std::vector<std::pair<std::string, std::string>>& env,
                     const std::vector<std::string>& unset) {
    std::string s = "child run of " + filter + " with";
    for (const auto& [name, value] : env) s += " " + name + "=\"" + value + "\"";
    for (const std::string& name : unset) s += " -" + name;
    return s;
}

}  // namespace

::testing::AssertionResult run_child(const std::string& gtest_filter,
                                     const std::vector<std::pair<std::string, std::string>>& env,
                                     const std::vector<std::string>& unset) {
    const std::string what = describe(gtest_filter, env, unset);

    std::vector<std::string> args = {"/proc/self/exe", "--gtest_filter=" + gtest_filter,
                                     "--gtest_also_run_disabled_tests", "--gtest_color=no", "--gtest_brief=0"};
    std::vector<std::string> envs = child_environment(env, unset);
    std::vector<char*> argv = pointers(args);
    std::vector<char*> envp = pointers(envs);

    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
        return ::testing::AssertionFailure() << what << ": pipe failed: " << std::strerror(errno);
    }
    // posix_spawn rather than fork: the test process may already run threads
    // (stream workers, the host pool), and nothing but exec is safe after a
    // fork of such a process.
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, fds[1], STDERR_FILENO);
    pid_t pid = -1;
    const int rc = posix_spawn(&pid, "/proc/self/exe", &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    close(fds[1]);
    if (rc != 0) {
        close(fds[0]);
        return ::testing::AssertionFailure() << what << ": spawn failed: " << std::strerror(rc);
    }

    std::string output;
    char buf[4096];
    for (;;) {
        const ssize_t got = read(fds[0], buf, sizeof buf);
        if (got > 0) {
            output.append(buf, static_cast<std::size_t>(got));
        } else if (got == 0 || errno != EINTR) {
            break;
        }
    }
    close(fds[0]);

    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFSIGNALED(status)) {
        return ::testing::AssertionFailure() << what << ": killed by signal " << WTERMSIG(status) << "\n"
                                             << output;
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        return ::testing::AssertionFailure() << what << ": exit status " << WEXITSTATUS(status) << "\n" << output;
    }
    // A filter that matches nothing also exits 0.
    if (output.find("[       OK ] ") == std::string::npos) {
        return ::testing::AssertionFailure() << what << ": no test ran\n" << output;
    }
    return ::testing::AssertionSuccess();
}

}  // namespace tsuops_test
