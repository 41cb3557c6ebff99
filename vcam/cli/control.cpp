#include "vcam/cli/control.h"

#include <algorithm>
#include <cstdlib>
#include <vector>

#include "vcam/preload/rpc_client.h"

namespace zumod::vcam {
namespace {

constexpr size_t kLineSize = 4096;

}  // namespace

bool SendControl(const std::string& line, std::string& answer, std::string server_name) {
    if (server_name.empty()) {
        const char* name = std::getenv(kServerVariable);
        server_name = name == nullptr ? "" : name;
    }
    if (server_name.empty()) {
        answer = "no virtual cameras here: " + std::string(kServerVariable) + " is not set";
        return false;
    }
    if (line.size() > kLineSize) {
        answer = "too long";
        return false;
    }
    FileIdentity nobody{};
    Request request = MakeRequest(Operation::kControl, nobody);
    // The answer comes into the same memory; what the line does not fill is blank.
    std::vector<char> text(kLineSize, ' ');
    std::copy(line.begin(), line.end(), text.begin());
    request.size = static_cast<uint32_t>(text.size());
    const iovec part{text.data(), text.size()};
    Reply reply{};
    if (CallServer(server_name.c_str(), request, &part, 1, reply, nullptr) != 0) {
        answer = "the server of the virtual cameras does not answer";
        return false;
    }
    answer.assign(text.data(), reply.size);
    return reply.error == 0;
}

}  // namespace zumod::vcam
