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

::testing::AssertionResult run_child(const std::string& gtest_filter,
                                     const std::vector<std::pair<std::string, std::string>>& env,
                                     const std::vector<std::string>& unset) {
    std::string what = "child run of " + gtest_filter + " with";
    // Variables of the parent's test run that must not reach the child: sharding
    // would make it skip the test asked for, an output file would be overwritten
    // and brief output would hide the line that proves the test ran.
    std::vector<std::string> removed = {"GTEST_SHARD_INDEX", "GTEST_TOTAL_SHARDS", "GTEST_SHARD_STATUS_FILE",
                                        "GTEST_OUTPUT",      "GTEST_BRIEF",        "GTEST_FILTER",
                                        "GTEST_REPEAT",      "GTEST_FAIL_FAST"};
    for (const std::string& name : unset) {
        what += " -" + name;
        removed.push_back(name);
    }
    std::vector<std::string> envs;
    for (const auto& [name, value] : env) {
        what += " " + name + "=\"" + value + "\"";
        removed.push_back(name);
        envs.push_back(name + "=" + value);
    }
    for (char** e = environ; *e != nullptr; ++e) {
        const std::string entry = *e;
        if (std::ranges::find(removed, entry.substr(0, entry.find('='))) == removed.end()) envs.push_back(entry);
    }
    std::vector<std::string> args = {"/proc/self/exe", "--gtest_filter=" + gtest_filter,
                                     "--gtest_also_run_disabled_tests", "--gtest_color=no", "--gtest_brief=0"};
    std::vector<char*> argv, envp;
    for (std::string& s : args) argv.push_back(s.data());
    for (std::string& s : envs) envp.push_back(s.data());
    argv.push_back(nullptr);
    envp.push_back(nullptr);

    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) return ::testing::AssertionFailure() << what << ": pipe: " << std::strerror(errno);
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
    std::string output;
    char buf[4096];
    for (ssize_t got; rc == 0 && (got = read(fds[0], buf, sizeof buf)) != 0;) {
        if (got > 0) output.append(buf, static_cast<std::size_t>(got));
        else if (errno != EINTR) break;
    }
    close(fds[0]);
    if (rc != 0) return ::testing::AssertionFailure() << what << ": spawn: " << std::strerror(rc);

    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFSIGNALED(status)) {
        return ::testing::AssertionFailure() << what << ": killed by signal " << WTERMSIG(status) << "\n" << output;
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
