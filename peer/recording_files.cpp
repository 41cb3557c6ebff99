#include "peer/recording_files.h"

#include <filesystem>
#include <utility>

#include "common/safe_text.h"
#include "peer/recording_name.h"

namespace zumod::peer {
namespace {

constexpr unsigned kMostFilesOfOneName = 99'999;

bool Exists(const std::string& path) {
    std::error_code error;
    return std::filesystem::exists(std::filesystem::symlink_status(path, error));
}

}  // namespace

Expected<std::unique_ptr<RecordingFiles>> RecordingFiles::Create(const std::string& pattern,
                                                                 const PeerOptions& options) {
    auto parser = StreamParser::Create();
    if (!parser) {
        return Fail(parser.error());
    }
    std::unique_ptr<RecordingFiles> files(new RecordingFiles(std::move(*parser), pattern, options));
    if (const auto opened = files->OpenNext(); !opened) {
        return Fail(opened.error());
    }
    return files;
}

void RecordingFiles::Begin(const CameraEntry& camera) {
    m_title = SafeText(camera.name);
}

Expected<OutputFile> RecordingFiles::CreateNext() {
    const std::string base = ExpandName(m_pattern, std::time(nullptr));
    const bool new_name = base != m_base;
    m_number = new_name ? 1 : m_number + 1;
    m_base = base;
    if (new_name && (m_first_name.empty() || m_options.overwrite || !Exists(base))) {
        return OutputFile::Create(base, m_options.overwrite, m_options.mode);
    }
    while (Exists(NumberedName(base, m_number))) {
        if (++m_number > kMostFilesOfOneName) {
            return Fail(SafeText(base) + ": all numbers are in use");
        }
    }
    return OutputFile::Create(NumberedName(base, m_number), false, m_options.mode);
}

Expected<void> RecordingFiles::OpenNext() {
    auto file = CreateNext();
    if (!file) {
        return Fail(file.error());
    }
    m_output = std::make_unique<Output>(std::move(*file));
    auto recorder = Recorder::Create(
        {.format = RecordingFormat(m_base), .fps = m_options.fps, .live = false, .title = m_title},
        *m_output);
    if (!recorder) {
        m_output.reset();
        return Fail(recorder.error());
    }
    m_recorder = std::move(*recorder);
    m_begin.reset();
    m_last_name = m_output->file.Name();
    m_first_name = m_first_name.empty() ? m_last_name : m_first_name;
    return {};
}

bool RecordingFiles::IsSplitDue(const ParsedFrame& frame, Clock::time_point time) const {
    if (!m_begin || !frame.CanBeFirst()) {
        return false;
    }
    const bool segment_over = m_options.segment && time - *m_begin >= *m_options.segment;
    return segment_over || (m_options.split_on_format && frame.size != m_recorder->Size());
}

Expected<FrameSink::Result> RecordingFiles::Add(const Frame& frame) {
    auto parsed = m_parser.Parse(frame.bytes);
    if (!parsed) {
        return Fail(parsed.error());
    }
    const auto time = m_options.arrival_times ? frame.at : m_clock.Next(frame.at);
    if (IsSplitDue(*parsed, time)) {
        if (const auto split = Split(); !split) {
            return Fail(split.error());
        }
    }
    if (m_recorder == nullptr) {
        if (!parsed->CanBeFirst()) {
            return Result::kSkipped;
        }
        if (const auto opened = OpenNext(); !opened) {
            return Fail(opened.error());
        }
    }
    if (!m_begin) {
        m_recorder->SetTitle(m_title);
    }
    const auto added = m_recorder->Add(std::move(*parsed), time);
    if (!added) {
        return Fail(added.error());
    }
    m_begin = *added && !m_begin ? time : m_begin;
    return *added ? Result::kTaken : Result::kSkipped;
}

Clock::time_point RecordingFiles::FlushDue() const {
    return m_recorder != nullptr ? m_recorder->FlushDue() : Clock::time_point::max();
}

Expected<void> RecordingFiles::Flush() {
    return m_recorder != nullptr ? m_recorder->Flush() : Expected<void>();
}

// Without a frame in it, the file stays open for the next one.
Expected<void> RecordingFiles::Split() {
    if (m_recorder == nullptr || !m_recorder->HasBegun()) {
        return {};
    }
    auto completed = Complete();
    m_recorder.reset();
    m_output.reset();
    m_begin.reset();
    return completed;
}

// A file that cannot be finished is kept, up to where it can be played, under its temporary name.
Expected<void> RecordingFiles::Complete() {
    // Then the caller has the reason already.
    const bool reported = m_recorder->HasFailedToWrite();
    const auto finished = m_recorder->Finish();
    if (finished) {
        return m_output->file.Commit();
    }
    const std::string reason = reported ? "" : finished.error().text + "; ";
    const std::string& name = m_output->file.Name();
    if (m_recorder->PlayableTime() == Clock::duration::zero()) {
        return Fail(reason + "nothing of " + name + " could be kept");
    }
    return Fail(reason + "the first " + SecondsText(m_recorder->PlayableTime()) + " of " + name +
                " are kept in " + m_output->file.Keep(m_recorder->PlayableBytes()));
}

std::string RecordingFiles::Name() const {
    return m_first_name == m_last_name ? m_first_name : m_first_name + " to " + m_last_name;
}

}  // namespace zumod::peer
