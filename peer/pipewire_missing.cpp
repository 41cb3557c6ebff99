// In place of pipewire_node.cpp where the library's headers are missing when the program is built.
#include "peer/pipewire_node.h"

namespace zumod::peer {
namespace {

tl::unexpected<Error> FailMissing() {
    return Fail("this program was built without PipeWire: libpipewire-0.3-dev was missing");
}

}  // namespace

Expected<UniqueFd> PipeWire::Connect() {
    return FailMissing();
}

Expected<std::unique_ptr<PipeWire>> PipeWire::Start(UniqueFd /*socket*/, Waiter& /*waiter*/) {
    return FailMissing();
}

Expected<std::unique_ptr<PipeWireNode>> PipeWireNode::Create(PipeWire& /*pipewire*/,
                                                             const NodeSettings& /*settings*/,
                                                             NodeEvents /*events*/) {
    return FailMissing();
}

}  // namespace zumod::peer
