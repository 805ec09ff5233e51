// People walking past a camera at random, at a set rate.
#include "CameraSim.h"

#include <chrono>
#include <random>

#include "CameraConn.h"

namespace camsim {

void Camera::StartWalking(double people_per_min, uint32_t seed) {
    StopWalking();
    if (people_per_min <= 0)
        return;
    std::lock_guard<std::mutex> guard(lock_);
    if (!started_ || stopping_)
        return;
    walking_ = true;
    walker_ = std::thread(&Camera::WalkLoop, this, people_per_min, seed);
}

void Camera::StopWalking() {
    {
        std::lock_guard<std::mutex> guard(lock_);
        walking_ = false;
    }
    changed_.notify_all();
    if (walker_.joinable())
        walker_.join();
}

void Camera::WalkLoop(double people_per_min, uint32_t seed) {
    std::mt19937 rng(seed);
    std::exponential_distribution<double> gap(people_per_min / 60.0);
    std::unique_lock<std::mutex> guard(lock_);
    while (walking_ && !stopping_) {
        auto wait = std::chrono::duration<double>(gap(rng));
        if (changed_.wait_for(guard, wait, [this] { return !walking_ || stopping_; }))
            break;
        bool going_in = totals_.in - totals_.out <= 0 || (rng() & 1) == 0;
        guard.unlock();
        Walk(going_in ? 1 : 0, going_in ? 0 : 1);
        guard.lock();
    }
}

}  // namespace camsim
