#include "policy/OrvChildProcess.h"

#include <errno.h>
#include <paths.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "crypto/OrvPolicyFile.h"

extern char** environ;

int OrvChildProcess::runShell(const char* command) {
    posix_spawnattr_t attr;
    if (posix_spawnattr_init(&attr) != 0) return -1;
    // The daemon keeps SIGINT blocked outside its signal thread; the child starts with nothing
    // blocked, as it would under system().
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attr, &none);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK);
    char sh[] = "sh";
    char dashC[] = "-c";
    std::string text = command ? command : "";
    char* argv[] = {sh, dashC, &text[0], nullptr};
    pid_t pid = -1;
    int err = posix_spawn(&pid, _PATH_BSHELL, nullptr, &attr, argv, environ);
    posix_spawnattr_destroy(&attr);
    if (err != 0) {
        errno = err;
        return -1;
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) return -1;
    }
    return status;
}

bool OrvChildProcess::move(const char* from, const char* to) {
    if (rename(from, to) == 0) return true;
    if (errno != EXDEV) return false;
    // Across file systems: the copy replaces the target in one rename, so readers never see a
    // half-written policy.
    std::string content;
    const char* reason = nullptr;
    if (!OrvPolicyFile::read(from, OrvPolicyFile::kMaxPlainSize, content, reason)) {
        errno = EINVAL;
        return false;
    }
    std::string staging = std::string(to) + ".moving";
    if (!OrvPolicyFile::write(staging.c_str(), content.data(), content.size()) ||
        rename(staging.c_str(), to) != 0) {
        int err = errno;
        unlink(staging.c_str());
        errno = err;
        return false;
    }
    return unlink(from) == 0;
}
