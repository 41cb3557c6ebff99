// Errors of the programs, and results that may be errors.
//
// A function that can fail returns Expected<T>. The Error is made once, where the cause is known, and printed
// once, by main through ReportError.
//
// Thread rule: values and pure functions; any thread.
#pragma once

#include <string>
#include <tl/expected.hpp>

namespace zumod {

inline constexpr int kExitFailure = 1;
inline constexpr int kExitUsage = 2;

// Why a program ends before its work is done.
struct Error {
    std::string text;           // one line, without the program's name and without a line end
    int status = kExitFailure;  // the exit status; 0: no failure, `text` is help for standard output

    bool operator==(const Error&) const = default;
};

template <class T>
using Expected = tl::expected<T, Error>;

tl::unexpected<Error> Fail(std::string text, int status = kExitFailure);
// Passes on the error of another result.
tl::unexpected<Error> Fail(Error error);

// A mistake on the command line: "TEXT (see --help)" with kExitUsage.
tl::unexpected<Error> FailUsage(const std::string& text);

// The text of an errno value, as in "No such file or directory".
std::string ErrnoText(int error);

// Prints "PROGRAM: TEXT" on standard error, or help on standard output. Returns the exit status. Does not
// wait long for a terminal that is stopped or a pipe that is not read.
int ReportError(const char* program, const Error& error);

}  // namespace zumod
