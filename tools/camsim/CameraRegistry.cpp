// Camera kinds that other files of the simulator add to the executable.
#include "CameraSim.h"

#include <mutex>
#include <vector>

#include "CameraConn.h"

namespace camsim {

namespace {

std::mutex& RegistryLock() {
    static std::mutex m;
    return m;
}

std::vector<CameraKind>& Registry() {
    static std::vector<CameraKind> kinds;
    return kinds;
}

}  // namespace

bool RegisterCameraKind(const CameraKind& kind) {
    std::lock_guard<std::mutex> guard(RegistryLock());
    Registry().push_back(kind);
    return true;
}

std::vector<CameraKind> RegisteredKinds() {
    std::lock_guard<std::mutex> guard(RegistryLock());
    return Registry();
}

}  // namespace camsim
