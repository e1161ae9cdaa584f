// errors.hpp - how the command fails: one message line and an exit status.
#pragma once

#include <stdexcept>
#include <string>

namespace bf::cli {

// Exit statuses of the command.
inline constexpr int kExitOk = 0;
inline constexpr int kExitUsage = 2;          // bad option, unreadable file, unknown filter
inline constexpr int kExitFilter = 3;         // the filter failed or is not available
inline constexpr int kExitInterrupted = 130;  // stopped with Ctrl-C

// Thrown inside the command and caught in main, which prints
// "bitmapfilter: <message>" and exits with the status.
class CliError : public std::runtime_error {
public:
    CliError(int status, const std::string& message)
        : std::runtime_error(message), status_(status) {}
    int status() const { return status_; }

private:
    int status_;
};

}  // namespace bf::cli
