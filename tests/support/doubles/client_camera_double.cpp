#include "tests/support/doubles/client_camera_double.h"

#include <stdexcept>

namespace zumod {
namespace testing {
namespace {

class ClientCameraDouble final : public CCounted_T<IClientCamera> {
public:
    ClientCameraDouble() : m_number(CameraScript().created++) {
        Record("created");
        ++CameraScript().alive;
    }
    ~ClientCameraDouble() override {
        Record("destroyed");
        --CameraScript().alive;
    }

    void SetListener(IClientCameraListenter* listener) override {
        CameraScript().listeners.push_back(listener);
        Record("SetListener()");
    }
    void SetCameraId(uint32_t id) override { Record("SetCameraId(" + std::to_string(id) + ")"); }
    void SetFormat(int32_t width, int32_t height, int32_t fps) override {
        Record("SetFormat(" + std::to_string(width) + ", " + std::to_string(height) + ", " +
               std::to_string(fps) + ")");
    }
    void SetProperty(int32_t property, int32_t value, int32_t automatic) override {
        Record("SetProperty(" + std::to_string(property) + ", " + std::to_string(value) + ", " +
               std::to_string(automatic) + ")");
    }
    void SetCameraFlag(uint8_t flag) override { Record("SetCameraFlag(" + std::to_string(flag) + ")"); }
    uint8_t GetCameraFlag() override {
        Record("GetCameraFlag()");
        return 0xC3;
    }
    bool Open() override {
        Record("Open()");
        return CameraScript().open_result;
    }
    int32_t Close(const uint32_t* id) override {
        Record(id != nullptr ? "Close(" + std::to_string(*id) + ")" : "Close()");
        return 0;
    }

private:
    void Record(const std::string& call) {
        CameraScript().calls.push_back(std::to_string(m_number) + " " + call);
        if (call == CameraScript().throws_in) {
            throw std::runtime_error(call);
        }
    }

    const int m_number;
};

}  // namespace

ClientCameraScript& CameraScript() {
    static ClientCameraScript script;
    return script;
}

}  // namespace testing

CRefPtr_T<IClientCamera> CreateClientCamera() {
    if (!testing::CameraScript().built_in) {
        return {};
    }
    return CRefPtr_T<IClientCamera>(new testing::ClientCameraDouble);
}

std::vector<CameraDeviceInfo> ListCameras() {
    testing::CameraScript().calls.emplace_back("ListCameras()");
    return testing::CameraScript().cameras;
}

}  // namespace zumod
