#include "peer/view_camera.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <ctime>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <utility>

#include "peer/commands.h"
#include "peer/host_calls.h"
#include "peer/recording_name.h"

namespace zumod::peer {
namespace {

constexpr size_t kLongestNamePart = 40;
constexpr unsigned kMostNamesakes = 99;
// A host lists sizes without rates. It takes the nearest rate that the camera has.
constexpr int kOfferedRates[] = {30, 25, 20, 15, 10, 5};

struct ShownState {
    const char* name;
    const char* text;
};
// In the order of ViewState.
constexpr std::array<ShownState, 8> kShownStates = {{
    {"idle", ""},
    {"connecting", "is being opened"},
    {"waiting", "waiting for the first picture"},
    {"live", ""},
    {"stalled", "sends no pictures; it is opened again"},
    {"gone", "is gone; it is opened again when it is back"},
    {"busy", "is used by another program of the host"},
    {"refused", "could not be opened"},
}};

nlohmann::json RatesOf(const PeerOptions& options) {
    nlohmann::json rates = {options.fps};
    for (const int rate : kOfferedRates) {
        if (rate != options.fps) {
            rates.push_back(rate);
        }
    }
    return rates;
}

nlohmann::json ControlsOf(const std::vector<ControlEntry>& controls) {
    nlohmann::json list = nlohmann::json::array();
    for (const ControlEntry& entry : controls) {
        if (entry.is_read_only) {
            continue;
        }
        list.push_back(
            {{"name", FindControl(entry.property)->name},
             {"value", entry.value},
             {"minimum", entry.minimum},
             {"maximum", entry.maximum},
             {"step", entry.step},
             {"default", entry.default_value},
             {"automatic", entry.has_automatic ? nlohmann::json(entry.is_automatic) : nlohmann::json()}});
    }
    return list;
}

uint64_t UnixMicroseconds(Clock::time_point time) {
    const auto age = Clock::now() - time;
    const auto unix_time = std::chrono::system_clock::now().time_since_epoch() - age;
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(unix_time).count());
}

double Milliseconds(Clock::duration duration) {
    return std::chrono::duration<double, std::milli>(duration).count();
}

}  // namespace

std::string FileNamePart(const std::string& name) {
    std::string part;
    for (const char letter : name) {
        const bool is_upper = letter >= 'A' && letter <= 'Z';
        const bool is_kept = (letter >= 'a' && letter <= 'z') || (letter >= '0' && letter <= '9');
        if (is_upper || is_kept) {
            part += is_upper ? static_cast<char>(letter - 'A' + 'a') : letter;
        } else if (!part.empty() && part.back() != '-') {
            part += '-';
        }
        if (part.size() == kLongestNamePart) {
            break;
        }
    }
    part.resize(part.find_last_not_of('-') + 1);
    return part.empty() ? "camera" : part;
}

ViewCamera::ViewCamera(uint32_t id, const Made& made)
    : published(made.listed, made.entry, {RequestedSize(made.options, made.entry), made.options.fps},
                {.watch = WatchLimits(made.options)}, Clock::now()),
      m_id(id),
      m_options(made.options),
      m_entry(made.entry) {}

std::string ViewCamera::Label() const {
    return CameraLabel(published.Camera());
}

void ViewCamera::AddViewer(ViewPart& part, Clock::time_point now) {
    m_viewers.push_back(&part);
    m_has_changed = true;
    for (const SharedPicture& picture : m_group.Pictures()) {
        part.pictures.Push(picture, now);
    }
}

void ViewCamera::RemoveViewer(const ViewPart& part) {
    m_lost += part.pictures.Lost();
    std::erase(m_viewers, &part);
    m_has_changed = true;
}

Expected<void> ViewCamera::OnFrame(const FrameMessage& frame, Clock::time_point arrived) {
    if (!m_parser) {
        auto parser = StreamParser::Create();
        if (!parser) {
            return Fail(parser.error());
        }
        m_parser.emplace(std::move(*parser));
    }
    const auto parsed = m_parser->Parse(frame.bytes);
    if (!parsed) {
        return Fail(parsed.error());
    }
    ViewPicture picture;
    picture.bytes = frame.bytes;
    if (!parsed->parameter_sets.empty()) {
        m_parameter_sets = parsed->parameter_sets;
    } else if (parsed->key) {
        picture.bytes.insert(picture.bytes.begin(), m_parameter_sets.begin(), m_parameter_sets.end());
    }
    picture.is_key = parsed->key && !m_parameter_sets.empty();
    picture.arrived_us = UnixMicroseconds(arrived);
    picture.arrived = arrived;
    const auto shared = std::make_shared<const ViewPicture>(std::move(picture));
    m_group.Add(shared);
    const auto now = Clock::now();
    for (ViewPart* const viewer : m_viewers) {
        viewer->pictures.Push(shared, now);
    }
    ++m_frames;
    m_bytes += frame.bytes.size();
    if (parsed->size.width != 0 && parsed->size != m_size) {
        m_size = parsed->size;
        m_has_changed = true;
    }
    SetState(ViewState::kLive, "");
    if (!m_recording) {
        return {};
    }
    const auto added = m_recording->files->Add({frame.id, frame.bytes, arrived});
    if (!added) {
        const auto finished = FinishRecording();
        return Fail(added.error().text + (finished ? "" : "; " + finished.error().text));
    }
    if (*added == FrameSink::Result::kTaken) {
        m_recording->begin = m_recording->begin.value_or(arrived);
        m_recording->bytes += frame.bytes.size();
    }
    return {};
}

void ViewCamera::OnOpen() {
    m_parser.reset();
    m_parameter_sets.clear();
    m_group.Clear();
    const bool is_repeated =
        m_state == ViewState::kStalled || m_state == ViewState::kBusy || m_state == ViewState::kRefused;
    if (!is_repeated) {
        SetState(ViewState::kConnecting, "");
    }
}

void ViewCamera::OnOpened() {
    if (m_state != ViewState::kLive) {
        SetState(ViewState::kWaiting, "");
    }
}

void ViewCamera::OnRefused(const std::string& notice) {
    SetState(notice.empty() && m_entry.in_use ? ViewState::kBusy : ViewState::kRefused, notice);
}

void ViewCamera::OnLost(bool is_listed, const std::string& text) {
    SetState(is_listed ? ViewState::kStalled : ViewState::kGone, text);
}

void ViewCamera::OnListed(const CameraEntry* entry) {
    m_has_changed |= m_is_listed != (entry != nullptr) || (entry != nullptr && *entry != m_entry);
    m_is_listed = entry != nullptr;
    if (entry != nullptr) {
        m_entry = *entry;
    }
}

bool ViewCamera::UpdateState() {
    if (!HasReaders() && !published.WantsFrames(published.Camera().id)) {
        SetState(ViewState::kIdle, "");
        m_group.Clear();
        m_size = {};
    }
    return std::exchange(m_has_changed, false);
}

void ViewCamera::SetState(ViewState state, const std::string& text) {
    if (m_state == state && m_text == text) {
        return;
    }
    m_state = state;
    m_text = text;
    m_has_changed = true;
    for (ViewPart* const viewer : m_viewers) {
        viewer->has_state = true;
    }
}

Expected<std::string> ViewCamera::StartRecording(const std::string& directory) {
    if (m_recording) {
        return m_recording->name;
    }
    const std::time_t now = std::time(nullptr);
    const std::string base = FileNamePart(m_entry.name) + ExpandName("-%Y%m%d-%H%M%S.mp4", now);
    // In a pattern "%" has a meaning.
    std::string pattern;
    for (const char letter : directory) {
        pattern += letter == '%' ? "%%" : std::string(1, letter);
    }
    std::string name = base;
    for (unsigned number = 2; std::filesystem::exists(std::filesystem::path(directory) / name); ++number) {
        if (number > kMostNamesakes) {
            return Fail("too many recordings begin in one second");
        }
        name = NumberedName(base, number);
    }
    auto files = RecordingFiles::Create(pattern + "/" + name, m_options);
    if (!files) {
        return Fail(files.error());
    }
    (*files)->Begin(m_entry);
    m_recording.emplace(Recorded{std::move(*files), name, std::nullopt, 0});
    m_has_changed = true;
    // From the last key picture on: a recording need not wait for the next one.
    for (const SharedPicture& picture : m_group.Pictures()) {
        if (auto added = m_recording->files->Add({m_id, picture->bytes, picture->arrived}); !added) {
            (void)FinishRecording();
            return Fail(added.error());
        }
        m_recording->begin = m_recording->begin.value_or(picture->arrived);
        m_recording->bytes += picture->bytes.size();
    }
    return name;
}

Expected<void> ViewCamera::FinishRecording() {
    if (!m_recording) {
        return {};
    }
    m_has_changed = true;
    return std::exchange(m_recording, std::nullopt)->files->Finish();
}

Clock::time_point ViewCamera::FlushDue() const {
    return m_recording ? m_recording->files->FlushDue() : Clock::time_point::max();
}

Expected<void> ViewCamera::Flush() {
    return m_recording ? m_recording->files->Flush() : Expected<void>();
}

std::string ViewCamera::StateJson() const {
    const ShownState& state = kShownStates[static_cast<size_t>(m_state)];
    const nlohmann::json json = {
        {"camera", m_id}, {"state", state.name}, {"text", m_text.empty() ? state.text : m_text}};
    return json.dump(-1, ' ', true, nlohmann::json::error_handler_t::replace);
}

nlohmann::json ViewCamera::Json(std::optional<double> round_trip_ms, Clock::time_point now) const {
    nlohmann::json sizes = nlohmann::json::array();
    const nlohmann::json rates = RatesOf(m_options);
    for (const PictureSize size : m_entry.sizes) {
        sizes.push_back({{"width", size.width}, {"height", size.height}, {"rates", rates}});
    }
    auto delay = Clock::duration::zero();
    uint64_t lost = m_lost;
    for (const ViewPart* const viewer : m_viewers) {
        delay = std::max(delay, viewer->pictures.Delay(now));
        lost += viewer->pictures.Lost();
    }
    const ShownState& state = kShownStates[static_cast<size_t>(m_state)];
    nlohmann::json size;
    if (m_size.width != 0) {
        size = {{"width", m_size.width}, {"height", m_size.height}, {"rate", published.Format().fps}};
    }
    nlohmann::json recording;
    if (m_recording) {
        const auto begin = m_recording->begin.value_or(now);
        recording = {{"file", m_recording->name},
                     {"seconds", std::chrono::duration_cast<std::chrono::seconds>(now - begin).count()},
                     {"bytes", m_recording->bytes}};
    }
    return {{"id", m_id},
            {"name", m_entry.name},
            {"sizes", std::move(sizes)},
            {"state", state.name},
            {"text", m_text.empty() ? state.text : m_text},
            {"size", std::move(size)},
            {"viewers", m_viewers.size()},
            {"recording", std::move(recording)},
            {"stats",
             {{"frames", m_frames},
              {"lost", lost},
              {"bytes", m_bytes},
              {"queue_ms", static_cast<int64_t>(Milliseconds(delay))},
              {"round_trip_ms", round_trip_ms ? nlohmann::json(*round_trip_ms) : nlohmann::json()}}},
            {"controls", m_controls ? ControlsOf(*m_controls) : nlohmann::json()}};
}

}  // namespace zumod::peer
