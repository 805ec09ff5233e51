#ifndef CAMSIM_CAMERA_CONN_H
#define CAMSIM_CAMERA_CONN_H

// Inside the simulator only: one accepted connection and the exchange a
// route handler answers through. Shared by the server and the camera files.
#include <mutex>
#include <sstream>
#include <string>
#include <thread>

#include "CameraSim.h"
#include "UFile.h"

namespace camsim {

// The reason phrase of an HTTP status code.
const char* ReasonPhrase(int status);

// One accepted connection. fd is closed only by its serving thread, under
// write_lock, so senders on other threads never write to a reused number.
struct Camera::Conn {
    int fd = -1;
    int serial = 0;
    std::mutex write_lock;
    bool open = true;         // under write_lock
    bool subscribed = false;  // under the camera's lock
    bool finished = false;    // under the camera's lock
    std::thread thread;

    bool Send(const std::string& bytes) {
        std::lock_guard<std::mutex> guard(write_lock);
        if (!open)
            return false;
        return UFile::WriteAll(fd, bytes.data(), bytes.size());
    }
};

class Camera::ConnExchange : public Exchange {
public:
    ConnExchange(Camera& cam, Conn& conn) : cam_(cam), conn_(conn) {}
    ~ConnExchange() override = default;

    bool Send(const std::string& bytes) override { return conn_.Send(bytes); }

    bool Reply(int status, const std::string& body, const std::string& content_type) override {
        std::ostringstream out;
        out << "HTTP/1.1 " << status << " " << ReasonPhrase(status) << "\r\n"
            << "Content-Type: " << content_type << "\r\n"
            << "Content-Length: " << body.size() << "\r\n"
            << "Connection: keep-alive\r\n\r\n"
            << body;
        return conn_.Send(out.str());
    }

    void KeepForEvents() override {
        std::lock_guard<std::mutex> guard(cam_.lock_);
        conn_.subscribed = true;
        cam_.changed_.notify_all();
    }

    void CloseAfter() override { close_after_ = true; }
    bool close_after() const { return close_after_; }

private:
    Camera& cam_;
    Conn& conn_;
    bool close_after_ = false;
};

}  // namespace camsim

#endif
