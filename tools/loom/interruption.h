// What Ctrl-C, a hang-up and a request to end do to a command: at once where no section is open; otherwise the
// section ends first, in order, and what it has changed is taken back.
#pragma once

namespace tool {

/// From here on the signals are handled. For main.
void handle_interruptions();
/// Ends the process by the signal that came, if one did, so that the caller sees why.
void end_as_interrupted();

/// While one lives, signals wait for `check_interruption`.
class orderly_end {
  public:
    orderly_end();
    ~orderly_end();
    orderly_end(const orderly_end&) = delete;
    orderly_end& operator=(const orderly_end&) = delete;
};

/// Throws failure when a signal has come: for loops over many records.
void check_interruption();

} // namespace tool
