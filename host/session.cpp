#include "host/session.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <utility>

namespace zumod::host {

Session::Session(CameraModule& module, CRefPtr_T<PeerStream> stream)
    : m_module(module),
      m_stream(std::move(stream)),
      m_done(eventfd(0, EFD_CLOEXEC)),
      m_thread([this] { Serve(); }) {}

Session::~Session() {
    m_stream->End();
    m_thread.join();
}

void Session::Serve() {
    if (const CRefPtr_T<IClientCameraPlugin> plugin = m_module.CreatePlugin()) {
        plugin->SetChannelStream(m_stream.Get());
        plugin->Run();
        m_leaving.store(true);
        // A peer that only stopped sending may block a frame that is being written, and ExitInstance waits
        // for it.
        m_stream->End();
        plugin->ExitInstance();
    }
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t count = write(m_done.Get(), &one, sizeof one);
}

}  // namespace zumod::host
