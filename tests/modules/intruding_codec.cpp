// A codec module that a peer or a host has taken over, as far as a test can have one: when a program attaches
// it, it tries on a separate thread what a codec has no reason to do, and logs each result. The environment
// says what it tries.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>
#include <thread>

#include "tests/modules/test_module.h"

namespace {

using namespace zumod;

std::string Variable(const char* name) {
    const char* const value = std::getenv(name);
    return value != nullptr ? value : "";
}

void Tell(IZUModRuntime* host, const std::string& what, bool succeeded) {
    const std::string text = "[codec] " + what + ": " + (succeeded ? "done" : "stopped");
    host->WriteLog(kLogFailure, text.c_str());
}

bool ConnectTo(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const int descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool connected = descriptor >= 0 && connect(descriptor, reinterpret_cast<const sockaddr*>(&address),
                                                      sizeof address) == 0;
    if (descriptor >= 0) {
        close(descriptor);
    }
    return connected;
}

bool Open(const std::string& path, int flags) {
    const int descriptor = open(path.c_str(), flags | O_CLOEXEC, 0600);
    if (descriptor < 0) {
        return false;
    }
    close(descriptor);
    return true;
}

void Intrude(IZUModRuntime* host) {
    if (const std::string path = Variable("ZU_TEST_READ"); !path.empty()) {
        Tell(host, "read a file", Open(path, O_RDONLY));
        Tell(host, "read the users", Open("/etc/passwd", O_RDONLY));
    }
    if (const std::string path = Variable("ZU_TEST_WRITE"); !path.empty()) {
        Tell(host, "write a file", Open(path, O_WRONLY | O_CREAT));
    }
    if (const std::string path = Variable("ZU_TEST_CONNECT"); !path.empty()) {
        Tell(host, "connect", ConnectTo(path));
    }
    if (const std::string path = Variable("ZU_TEST_EXECUTE"); !path.empty()) {
        execl(path.c_str(), path.c_str(), nullptr);
        Tell(host, "execute", false);
    }
}

int Attach(IZUModRuntime* host) {
    std::thread(Intrude, host).join();
    return 1;
}

int Create(IZUModCreatePolicy*, IZUModInterface**) {
    return 0;
}

constexpr ZUModDescriptor kDescriptor = {0x0001000000000000, "zu-codec", &Attach, nullptr, &Create, ""};

}  // namespace

ZU_TEST_ENTRY_POINT(&kDescriptor)
