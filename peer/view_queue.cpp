#include "peer/view_queue.h"

#include <utility>

namespace zumod::peer {
namespace {

enum RecordType : uint8_t { kPictureRecord = 1, kStateRecord = 2 };
constexpr uint8_t kKeyFlag = 1;

template <class Number>
void AppendNumber(std::string& text, Number number) {
    for (size_t i = 0; i < sizeof number; ++i) {
        text += static_cast<char>(static_cast<uint64_t>(number) >> (8 * i));
    }
}

}  // namespace

void ViewQueue::Push(SharedPicture picture, Clock::time_point now) {
    if (m_needs_key && !picture->is_key) {
        m_lost += m_has_begun ? 1 : 0;
        return;
    }
    if (m_needs_key) {
        m_lost += static_cast<uint32_t>(m_waiting.size());
        m_waiting.clear();
        m_bytes = 0;
    }
    m_has_begun = true;
    m_needs_key = m_bytes + picture->bytes.size() > kQueueBytes || Delay(now) > kQueueTime;
    if (m_needs_key) {
        ++m_lost;
        return;
    }
    m_bytes += picture->bytes.size();
    m_waiting.push_back({std::move(picture), now});
}

SharedPicture ViewQueue::Pop() {
    if (m_waiting.empty()) {
        return nullptr;
    }
    SharedPicture picture = std::move(m_waiting.front().picture);
    m_waiting.pop_front();
    m_bytes -= picture->bytes.size();
    return picture;
}

void ViewGroup::Add(const SharedPicture& picture) {
    if (picture->is_key) {
        Clear();
    } else if (m_pictures.empty()) {
        return;
    }
    if (m_bytes + picture->bytes.size() > kGroupBytes || m_pictures.size() == kGroupPictures) {
        Clear();
        return;
    }
    m_bytes += picture->bytes.size();
    m_pictures.push_back(picture);
}

std::string PictureRecord(const ViewPicture& picture, uint16_t index, uint32_t lost) {
    constexpr uint32_t kRest = 24;  // behind the length
    constexpr uint64_t kTimeNotKnown = 0;
    std::string record;
    AppendNumber(record, static_cast<uint32_t>(kRest + picture.bytes.size()));
    AppendNumber(record, static_cast<uint8_t>(kPictureRecord));
    AppendNumber(record, static_cast<uint8_t>(picture.is_key ? kKeyFlag : 0));
    AppendNumber(record, index);
    AppendNumber(record, kTimeNotKnown);
    AppendNumber(record, picture.arrived_us);
    AppendNumber(record, lost);
    return record;
}

std::string StateRecord(const std::string& json) {
    std::string record;
    AppendNumber(record, static_cast<uint32_t>(1 + json.size()));
    AppendNumber(record, static_cast<uint8_t>(kStateRecord));
    return record + json;
}

}  // namespace zumod::peer
