#include "peer/pipewire_node.h"

#include <dlfcn.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "common/safe_text.h"
#include "common/unix_socket.h"

// The library's headers are C with extensions of GNU.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpedantic"
#pragma GCC diagnostic ignored "-Wold-style-cast"
#pragma GCC diagnostic ignored "-Wconversion"
#pragma GCC diagnostic ignored "-Wsign-conversion"
#pragma GCC diagnostic ignored "-Wshadow"
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"
#include <pipewire/pipewire.h>
#include <spa/buffer/meta.h>
#include <spa/param/buffers.h>
#include <spa/param/video/format-utils.h>
#include <spa/pod/builder.h>

namespace zumod::peer {
namespace {

constexpr char kLibrary[] = "libpipewire-0.3.so.0";
constexpr int kLeastRate = 1;
constexpr int kMostRate = 60;
// A host may list many sizes. A menu with more is of no use, and the description of a node has a limit.
constexpr size_t kMostOffered = 64;
constexpr int kBuffers = 4;
constexpr int kMostBuffers = 8;

// The functions of the library that this file calls; everything else in its headers is inline.
struct Library {
    decltype(&pw_init) init;
    decltype(&pw_loop_new) loop_new;
    decltype(&pw_loop_destroy) loop_destroy;
    decltype(&pw_context_new) context_new;
    decltype(&pw_context_destroy) context_destroy;
    decltype(&pw_context_connect_fd) context_connect_fd;
    decltype(&pw_core_disconnect) core_disconnect;
    decltype(&pw_properties_new_dict) properties_new_dict;
    decltype(&pw_stream_new) stream_new;
    decltype(&pw_stream_destroy) stream_destroy;
    decltype(&pw_stream_add_listener) stream_add_listener;
    decltype(&pw_stream_connect) stream_connect;
    decltype(&pw_stream_update_params) stream_update_params;
    decltype(&pw_stream_dequeue_buffer) stream_dequeue_buffer;
    decltype(&pw_stream_queue_buffer) stream_queue_buffer;
    decltype(&pw_stream_get_state) stream_get_state;
    decltype(&pw_stream_trigger_process) stream_trigger_process;
};

// Never unloaded: its data thread may still run its code.
Expected<Library> LoadLibrary() {
    void* const handle = dlopen(kLibrary, RTLD_NOW | RTLD_GLOBAL);
    if (handle == nullptr) {
        const char* const reason = dlerror();  // NOLINT(concurrency-mt-unsafe): the text is this thread's
        return Fail("PipeWire's library is not installed: " + SafeText(reason));
    }
    std::string missing;
    const auto load = [&](const char* name, auto& function) {
        void* const symbol = dlsym(handle, name);
        missing += symbol == nullptr ? std::string(" ") + name : "";
        std::memcpy(&function, &symbol, sizeof symbol);
    };
    Library library{};
    load("pw_init", library.init);
    load("pw_loop_new", library.loop_new);
    load("pw_loop_destroy", library.loop_destroy);
    load("pw_context_new", library.context_new);
    load("pw_context_destroy", library.context_destroy);
    load("pw_context_connect_fd", library.context_connect_fd);
    load("pw_core_disconnect", library.core_disconnect);
    load("pw_properties_new_dict", library.properties_new_dict);
    load("pw_stream_new", library.stream_new);
    load("pw_stream_destroy", library.stream_destroy);
    load("pw_stream_add_listener", library.stream_add_listener);
    load("pw_stream_connect", library.stream_connect);
    load("pw_stream_update_params", library.stream_update_params);
    load("pw_stream_dequeue_buffer", library.stream_dequeue_buffer);
    load("pw_stream_queue_buffer", library.stream_queue_buffer);
    load("pw_stream_get_state", library.stream_get_state);
    load("pw_stream_trigger_process", library.stream_trigger_process);
    if (!missing.empty()) {
        return Fail(std::string("PipeWire's library is too old; it lacks") + missing);
    }
    return library;
}

std::string Variable(const char* name) {
    const char* const value = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): the only thread
    return value != nullptr ? value : "";
}

// As the library finds it.
std::string SocketPath() {
    std::string name = Variable("PIPEWIRE_REMOTE");
    name = name.empty() ? "pipewire-0" : name;
    if (name.front() == '/') {
        return name;
    }
    std::string directory = Variable("PIPEWIRE_RUNTIME_DIR");
    directory = directory.empty() ? Variable("XDG_RUNTIME_DIR") : directory;
    return directory.empty() ? "" : directory + "/" + name;
}

using Items = std::vector<std::pair<const char*, std::string>>;

pw_properties* MakeProperties(const Library& library, const Items& items) {
    std::vector<spa_dict_item> entries;
    for (const auto& [key, value] : items) {
        entries.push_back({key, value.c_str()});
    }
    const spa_dict dictionary{0, static_cast<uint32_t>(entries.size()), entries.data()};
    return library.properties_new_dict(&dictionary);
}

class RunningPipeWire final : public PipeWire {
public:
    RunningPipeWire(const Library& library, Waiter& waiter) : m_library(library), m_waiter(waiter) {}
    ~RunningPipeWire() override {
        m_registration.reset();
        if (m_core != nullptr) {
            m_library.core_disconnect(m_core);
        }
        if (m_context != nullptr) {
            m_library.context_destroy(m_context);
        }
        if (m_loop != nullptr) {
            pw_loop_leave(m_loop);
            m_library.loop_destroy(m_loop);
        }
    }

    Expected<void> Open(UniqueFd socket) {
        m_library.init(nullptr, nullptr);
        m_loop = m_library.loop_new(nullptr);
        if (m_loop == nullptr) {
            return Fail("PipeWire does not start: " + ErrnoText(errno));
        }
        pw_loop_enter(m_loop);
        m_context = m_library.context_new(
            m_loop,
            MakeProperties(m_library, {{PW_KEY_APP_NAME, "zu-camera-peer"}, {"support.dbus", "false"}}), 0);
        if (m_context == nullptr) {
            return Fail("PipeWire does not start: " + ErrnoText(errno));
        }
        m_core = m_library.context_connect_fd(m_context, socket.Release(), nullptr, 0);
        if (m_core == nullptr) {
            return Fail("no connection to PipeWire: " + ErrnoText(errno));
        }
        static constexpr pw_core_events kEvents = [] {
            pw_core_events events{};
            events.version = PW_VERSION_CORE_EVENTS;
            events.error = OnError;
            return events;
        }();
        pw_core_add_listener(m_core, &m_listener, &kEvents, this);
        m_registration = m_waiter.Watch(pw_loop_get_fd(m_loop), POLLIN, [this] { Iterate(); });
        return {};
    }

    std::string Failure() const override { return m_failure; }
    const Library& Functions() const { return m_library; }
    pw_core* Core() const { return m_core; }

private:
    void Iterate() {
        if (const int result = pw_loop_iterate(m_loop, 0); result < 0 && result != -EINTR) {
            Note(ErrnoText(-result));
        }
    }
    void Note(const std::string& text) {
        if (m_failure.empty()) {
            m_failure = "the connection to PipeWire is lost: " + SafeText(text);
            // Its descriptor stays readable.
            m_registration.reset();
        }
    }
    static void OnError(void* self, uint32_t id, int /*sequence*/, int result, const char* text) {
        // Other objects have errors that their own events report.
        if (id == PW_ID_CORE && result == -EPIPE) {
            static_cast<RunningPipeWire*>(self)->Note(text);
        }
    }

    const Library m_library;
    Waiter& m_waiter;
    pw_loop* m_loop = nullptr;
    pw_context* m_context = nullptr;
    pw_core* m_core = nullptr;
    spa_hook m_listener{};
    Waiter::Registration m_registration;
    std::string m_failure;
};

// Memory for the descriptions that are passed to one call.
class PodBuilder {
public:
    PodBuilder() { spa_pod_builder_init(&m_builder, m_memory.data(), m_memory.size()); }

    void AddFormat(PictureSize size, int fps) {
        const spa_rectangle rectangle{size.width, size.height};
        const spa_fraction preferred{static_cast<uint32_t>(std::min(fps, kMostRate)), 1};
        const spa_fraction least{kLeastRate, 1};
        const spa_fraction most{kMostRate, 1};
        Add(spa_pod_builder_add_object(
            &m_builder, SPA_TYPE_OBJECT_Format, SPA_PARAM_EnumFormat, SPA_FORMAT_mediaType,
            SPA_POD_Id(SPA_MEDIA_TYPE_video), SPA_FORMAT_mediaSubtype, SPA_POD_Id(SPA_MEDIA_SUBTYPE_raw),
            SPA_FORMAT_VIDEO_format,
            SPA_POD_CHOICE_ENUM_Id(3, SPA_VIDEO_FORMAT_I420, SPA_VIDEO_FORMAT_I420, SPA_VIDEO_FORMAT_NV12),
            SPA_FORMAT_VIDEO_size, SPA_POD_Rectangle(&rectangle), SPA_FORMAT_VIDEO_framerate,
            SPA_POD_CHOICE_RANGE_Fraction(&preferred, &least, &most)));
    }
    void AddBuffers(size_t bytes, uint32_t stride) {
        Add(spa_pod_builder_add_object(
            &m_builder, SPA_TYPE_OBJECT_ParamBuffers, SPA_PARAM_Buffers, SPA_PARAM_BUFFERS_buffers,
            SPA_POD_CHOICE_RANGE_Int(kBuffers, 2, kMostBuffers), SPA_PARAM_BUFFERS_blocks, SPA_POD_Int(1),
            SPA_PARAM_BUFFERS_size, SPA_POD_Int(static_cast<int>(bytes)), SPA_PARAM_BUFFERS_stride,
            SPA_POD_Int(static_cast<int>(stride)), SPA_PARAM_BUFFERS_dataType,
            SPA_POD_CHOICE_FLAGS_Int((1 << SPA_DATA_MemFd) | (1 << SPA_DATA_MemPtr))));
    }
    void AddHeaders() {
        Add(spa_pod_builder_add_object(&m_builder, SPA_TYPE_OBJECT_ParamMeta, SPA_PARAM_Meta,
                                       SPA_PARAM_META_type, SPA_POD_Id(SPA_META_Header), SPA_PARAM_META_size,
                                       SPA_POD_Int(sizeof(spa_meta_header))));
    }

    const spa_pod** Pods() { return m_pods.data(); }
    uint32_t Count() const { return static_cast<uint32_t>(m_pods.size()); }

private:
    static constexpr size_t kBytesPerFormat = 512;

    void Add(void* pod) {
        if (pod != nullptr) {
            m_pods.push_back(static_cast<const spa_pod*>(pod));
        }
    }

    std::array<uint8_t, kMostOffered * kBytesPerFormat> m_memory{};
    spa_pod_builder m_builder{};
    std::vector<const spa_pod*> m_pods;
};

class StreamNode final : public PipeWireNode {
public:
    StreamNode(RunningPipeWire& pipewire, NodeSettings settings, NodeEvents events)
        : m_functions(pipewire.Functions()), m_settings(std::move(settings)), m_events(std::move(events)) {
        m_stream = m_functions.stream_new(
            pipewire.Core(), m_settings.name.c_str(),
            MakeProperties(m_functions, {{PW_KEY_MEDIA_CLASS, "Video/Source"},
                                         // Without it the portal, and so a browser, does not
                                         // list the node.
                                         {PW_KEY_MEDIA_ROLE, "Camera"},
                                         {PW_KEY_NODE_NAME, m_settings.name},
                                         {PW_KEY_NODE_DESCRIPTION, m_settings.description}}));
    }
    ~StreamNode() override {
        m_events = {};
        if (m_stream != nullptr) {
            m_functions.stream_destroy(m_stream);
        }
    }

    Expected<void> Open() {
        if (m_stream == nullptr) {
            return Fail("PipeWire makes no node: " + ErrnoText(errno));
        }
        static constexpr pw_stream_events kEvents = [] {
            pw_stream_events events{};
            events.version = PW_VERSION_STREAM_EVENTS;
            events.state_changed = OnState;
            events.param_changed = OnParameter;
            events.process = OnProcess;
            return events;
        }();
        m_functions.stream_add_listener(m_stream, &m_listener, &kEvents, this);
        const auto formats = std::make_unique<PodBuilder>();
        formats->AddFormat(m_settings.preferred.size, m_settings.preferred.fps);
        for (const PictureSize size : m_settings.sizes) {
            if (size != m_settings.preferred.size && formats->Count() < kMostOffered) {
                formats->AddFormat(size, m_settings.preferred.fps);
            }
        }
        const int connected = m_functions.stream_connect(
            m_stream, PW_DIRECTION_OUTPUT, PW_ID_ANY,
            static_cast<pw_stream_flags>(PW_STREAM_FLAG_DRIVER | PW_STREAM_FLAG_MAP_BUFFERS), formats->Pods(),
            formats->Count());
        return connected < 0 ? Fail("PipeWire makes no node: " + ErrnoText(-connected)) : Expected<void>();
    }

    PictureMailbox& Mailbox() override { return m_mailbox; }

    void Present() override {
        if (m_functions.stream_get_state(m_stream, nullptr) == PW_STREAM_STATE_STREAMING) {
            m_functions.stream_trigger_process(m_stream);
        }
    }

private:
    static void OnState(void* self, pw_stream_state /*old*/, pw_stream_state state, const char* error) {
        const StreamNode& node = *static_cast<StreamNode*>(self);
        if (state == PW_STREAM_STATE_ERROR) {
            if (node.m_events.on_error) {
                node.m_events.on_error(SafeText(error != nullptr ? error : "an error without a reason"));
            }
            // The library also reports errors after which the stream goes on.
            state = node.m_functions.stream_get_state(node.m_stream, nullptr);
        }
        if (node.m_events.on_readers) {
            node.m_events.on_readers(state == PW_STREAM_STATE_STREAMING);
        }
    }

    static void OnParameter(void* self, uint32_t id, const spa_pod* parameter) {
        if (id == SPA_PARAM_Format && parameter != nullptr) {
            static_cast<StreamNode*>(self)->UseFormat(*parameter);
        }
    }

    // The server chose it from those offered, and is believed only as far as this is checked.
    void UseFormat(const spa_pod& parameter) {
        spa_video_info_raw info{};
        if (spa_format_video_raw_parse(&parameter, &info) < 0) {
            return;
        }
        const PictureSize size{info.size.width, info.size.height};
        const bool known = info.format == SPA_VIDEO_FORMAT_I420 || info.format == SPA_VIDEO_FORMAT_NV12;
        if (!known || !CanBeOffered(size)) {
            return;
        }
        m_size = size;
        m_target = info.format == SPA_VIDEO_FORMAT_NV12 ? kVideoTargetNv12 : kVideoTargetI420;
        const auto planes = PlanesOf(m_size, m_target);
        const auto parameters = std::make_unique<PodBuilder>();
        parameters->AddBuffers(planes.back().offset + planes.back().row_bytes * planes.back().rows,
                               m_size.width);
        parameters->AddHeaders();
        m_functions.stream_update_params(m_stream, parameters->Pods(), parameters->Count());
        const int fps = info.framerate.denom == 0 || info.framerate.num == 0
                            ? m_settings.preferred.fps
                            : static_cast<int>(std::clamp<uint32_t>(info.framerate.num / info.framerate.denom,
                                                                    kLeastRate, kMostRate));
        if (m_events.on_format) {
            m_events.on_format({m_size, fps}, m_target);
        }
    }

    static void OnProcess(void* self) { static_cast<StreamNode*>(self)->Fill(); }

    void Fill() {
        const Picture* const picture = m_mailbox.Take();
        if (picture == nullptr || picture->size != m_size || picture->format != m_target) {
            return;
        }
        pw_buffer* const buffer = m_functions.stream_dequeue_buffer(m_stream);
        if (buffer == nullptr) {
            return;  // the readers have all of them
        }
        spa_data& data = buffer->buffer->datas[0];
        const bool fits = data.data != nullptr && data.maxsize >= picture->bytes.size();
        if (fits) {
            std::memcpy(data.data, picture->bytes.data(), picture->bytes.size());
        }
        data.chunk->offset = 0;
        data.chunk->size = fits ? static_cast<uint32_t>(picture->bytes.size()) : 0;
        data.chunk->stride = static_cast<int32_t>(m_size.width);
        auto* const header = static_cast<spa_meta_header*>(
            spa_buffer_find_meta_data(buffer->buffer, SPA_META_Header, sizeof(spa_meta_header)));
        if (header != nullptr) {
            *header = {};
            header->pts =
                std::chrono::duration_cast<std::chrono::nanoseconds>(picture->arrived.time_since_epoch())
                    .count();
            header->seq = picture->sequence;
        }
        m_functions.stream_queue_buffer(m_stream, buffer);
    }

    const Library& m_functions;
    const NodeSettings m_settings;
    NodeEvents m_events;
    pw_stream* m_stream = nullptr;
    spa_hook m_listener{};
    PictureMailbox m_mailbox;
    PictureSize m_size;
    VideoTargetFormat m_target = kVideoTargetI420;
};

}  // namespace

Expected<UniqueFd> PipeWire::Connect() {
    const std::string path = SocketPath();
    if (path.empty()) {
        return Fail("there is no PipeWire: XDG_RUNTIME_DIR is not set");
    }
    const auto address = UnixAddress::FromPath(path);
    UniqueFd socket = address ? NewUnixSocket(SOCK_NONBLOCK) : UniqueFd();
    if (!address || address->Connect(socket) != 0) {
        return Fail("there is no PipeWire at " + SafeText(path) + ": " +
                    (address ? ErrnoText(errno) : "the path is too long"));
    }
    return socket;
}

Expected<std::unique_ptr<PipeWire>> PipeWire::Start(UniqueFd socket, Waiter& waiter) {
    auto library = LoadLibrary();
    if (!library) {
        return Fail(library.error());
    }
    auto pipewire = std::make_unique<RunningPipeWire>(*library, waiter);
    if (auto opened = pipewire->Open(std::move(socket)); !opened) {
        return Fail(opened.error());
    }
    return pipewire;
}

Expected<std::unique_ptr<PipeWireNode>> PipeWireNode::Create(PipeWire& pipewire, const NodeSettings& settings,
                                                             NodeEvents events) {
    auto node =
        std::make_unique<StreamNode>(static_cast<RunningPipeWire&>(pipewire), settings, std::move(events));
    if (auto opened = node->Open(); !opened) {
        return Fail(opened.error());
    }
    return node;
}

}  // namespace zumod::peer

#pragma GCC diagnostic pop
