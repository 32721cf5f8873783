// SIGINT and SIGTERM end the commands that run until stopped (register, list --watch, demo).
#ifndef KORVEL_TOOLS_KORVEL_SIGNALS_H_
#define KORVEL_TOOLS_KORVEL_SIGNALS_H_

namespace korvel::cli {

// Blocks SIGINT and SIGTERM and starts a thread that waits for them with sigwait: it records the
// first one, and a second one ends the process at once with exit code 128 + its number. Call once,
// before any other thread starts, so that every thread inherits the mask.
void WatchStopSignals();

// 0 until SIGINT or SIGTERM arrived, then that signal's number.
int ReceivedStopSignal();

}  // namespace korvel::cli

#endif  // KORVEL_TOOLS_KORVEL_SIGNALS_H_
