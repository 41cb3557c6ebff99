#include "vcam/cli/control.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <vector>

#include "vcam/preload/rpc_client.h"

namespace zumod::vcam {
namespace {

constexpr size_t kLineSize = 4096;

}  // namespace

Expected<std::string> SendControl(const std::string& line, std::string server_name) {
    if (server_name.empty()) {
        const char* name = std::getenv(kServerVariable);  // NOLINT(concurrency-mt-unsafe): no thread sets it
        server_name = name == nullptr ? "" : name;
    }
    if (server_name.empty()) {
        return Fail("no virtual cameras here: " + std::string(kServerVariable) + " is not set", kExitUsage);
    }
    if (line.size() > kLineSize) {
        return Fail("too long", kExitUsage);
    }
    const Request request = MakeRequest(Operation::kControl);
    // The answer is received into the same memory. The line is padded with spaces.
    std::vector<char> text(kLineSize, ' ');
    std::copy(line.begin(), line.end(), text.begin());
    const iovec part{text.data(), text.size()};
    Reply reply{};
    const int failure = CallServer(server_name.c_str(), request, &part, 1, reply, nullptr);
    if (failure == EACCES) {
        return Fail("the server of the virtual cameras belongs to another user", kExitUsage);
    }
    if (failure != 0) {
        return Fail("the server of the virtual cameras does not answer", kExitUsage);
    }
    std::string answer(text.data(), reply.size);
    if (reply.error != 0) {
        return Fail(answer, kExitUsage);
    }
    return answer;
}

}  // namespace zumod::vcam
