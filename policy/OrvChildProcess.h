#pragma once

// Runs commands for the policy engine the way system() does, minus what system() does to the
// caller: SIGINT and SIGQUIT stay as they are in the daemon while the child runs, so a stop
// request is never lost to a long command, and no command can hold the caller for ever.
class OrvChildProcess {
  public:
    // Runs `command` through the platform shell and waits for it, at most `timeoutMs`
    // milliseconds (0 or less: no limit). Past the limit the shell and everything it started in
    // its process group are killed, reaped, and `timedOut` is set. Returns the raw wait status,
    // as system() would, or -1 when no child could be started.
    static int runShell(const char* command, int timeoutMs, bool& timedOut);
};
