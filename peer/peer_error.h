// How the work of this program ends early: each is thrown where it happens and caught in one place.
#pragma once

#include <stdexcept>

namespace zumod::peer {

// A failure; the text is one line, fit for a terminal.
class PeerError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// A signal asked for the end.
class Interrupted : public std::exception {
public:
    const char* what() const noexcept override { return "interrupted"; }
};

// Nobody reads standard output any more.
class OutputClosed : public std::exception {
public:
    const char* what() const noexcept override { return "nobody reads standard output"; }
};

}  // namespace zumod::peer
