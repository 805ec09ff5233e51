// The LAPI camera: subscriptions, totals, events and their observation.
#include "CameraSim.h"

#include <sys/socket.h>
#include <time.h>

#include <chrono>
#include <cstring>
#include <sstream>

#include "CameraConn.h"

namespace camsim {

namespace {

const char* const kSubscriptionPath = "/LAPI/V1.0/System/Event/Subscription";

const char* const kEventPath = "/LAPI/V1.0/System/Event/Notification";

}  // namespace

Camera::Camera(int port, const std::string& bind_address) : port_(port), address_(bind_address) {
    AddRoute("POST", kSubscriptionPath,
             [this](const Request& req, Exchange& ex) { AnswerSubscription(req, ex); });
}

Camera::~Camera() {
    Stop();
}

void Camera::AnswerSubscription(const Request& req, Exchange& ex) {
    Subscribe how;
    {
        std::lock_guard<std::mutex> guard(lock_);
        how = subscribe_;
    }
    const std::string ok_head = "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\n";
    switch (how) {
        case Subscribe::Ok:
            if (ex.Reply(200, "{\"Result\":0,\"SubscriptionID\":" + std::to_string(req.connection) +
                                  "}")) {
                ex.KeepForEvents();
            }
            break;
        case Subscribe::Unauthorized:
            ex.Reply(401, "{\"Result\":401}");
            break;
        case Subscribe::OkWithoutBody:
            ex.Send(ok_head + "Connection: keep-alive\r\n\r\n");
            break;
        case Subscribe::OkZeroLength:
            ex.Send(ok_head + "Content-Length: 0\r\n\r\n");
            break;
        case Subscribe::OkShortBody:
            ex.Send(ok_head + "Content-Length: 40\r\n\r\n{\"Result\":");
            ex.CloseAfter();
            break;
        case Subscribe::OkHugeBody:
            ex.Reply(200, "{\"Filler\":\"" + std::string(4080, 'x') + "\"}");
            break;
        case Subscribe::LongHeaderLine:
            ex.Send(ok_head + "X-Filler: " + std::string(600, 'a') +
                    "\r\nContent-Length: 2\r\n\r\n{}");
            break;
        case Subscribe::CloseMidHead:
            ex.Send("HTTP/1.1 20");
            ex.CloseAfter();
            break;
        case Subscribe::Garbage:
            ex.Send(std::string("\x00\xff\x13\x37\r\n\x80\x81garbage\x00\r\n\r\n", 20));
            ex.CloseAfter();
            break;
        case Subscribe::Silent:
            break;
        case Subscribe::Trickle:
            if (Trickle(ok_head + "Content-Length: 2\r\n\r\n{}", ex))
                ex.KeepForEvents();
            break;
        case Subscribe::CloseAtOnce:
            ex.CloseAfter();
            break;
    }
}

bool Camera::Trickle(const std::string& bytes, Exchange& ex) {
    for (char byte : bytes) {
        if (!ex.Send(std::string(1, byte)))
            return false;
        std::unique_lock<std::mutex> guard(lock_);
        if (changed_.wait_for(guard, std::chrono::seconds(1), [this] { return stopping_; }))
            return false;
    }
    return true;
}

Totals Camera::GetTotals() {
    std::lock_guard<std::mutex> guard(lock_);
    return totals_;
}

void Camera::SetTotals(int in, int out) {
    std::lock_guard<std::mutex> guard(lock_);
    totals_.in = in;
    totals_.out = out;
}

void Camera::WithTotals(const std::function<void(Totals&)>& change) {
    std::lock_guard<std::mutex> guard(lock_);
    change(totals_);
}

void Camera::SetSubscribe(Subscribe how) {
    std::lock_guard<std::mutex> guard(lock_);
    subscribe_ = how;
}

std::string Camera::EventBody(int obj_in, int obj_out, const Totals& totals) {
    return "{\"ObjectIn\":" + std::to_string(obj_in) + ",\"ObjectOut\":" + std::to_string(obj_out) +
           ",\"TotalIn\":" + std::to_string(totals.in) +
           ",\"TotalOut\":" + std::to_string(totals.out) + "}";
}

std::string Camera::EventMessage(const std::string& json) {
    return std::string("POST ") + kEventPath +
           " HTTP/1.1\r\nContent-Type: application/json\r\nContent-Length: " +
           std::to_string(json.size()) + "\r\n\r\n" + json;
}

void Camera::SetCountingEnabled(bool on) {
    std::lock_guard<std::mutex> guard(lock_);
    counting_enabled_ = on;
}

bool Camera::CountingEnabled() {
    std::lock_guard<std::mutex> guard(lock_);
    return counting_enabled_;
}

int Camera::Walk(int obj_in, int obj_out) {
    std::string body;
    {
        std::lock_guard<std::mutex> guard(lock_);
        if (!counting_enabled_)
            return 0;
        totals_.in += obj_in;
        totals_.out += obj_out;
        body = EventBody(obj_in, obj_out, totals_);
    }
    return Broadcast(EventMessage(body), body);
}

int Camera::SendTotals(int obj_in, int obj_out) {
    std::string body = EventBody(obj_in, obj_out, GetTotals());
    return Broadcast(EventMessage(body), body);
}

int Camera::SendBody(const std::string& json) {
    return Broadcast(EventMessage(json), json);
}

int Camera::SendRaw(const std::string& bytes) {
    return Broadcast(bytes, bytes);
}

std::vector<std::shared_ptr<Camera::Conn>> Camera::SubscribedConns() {
    std::vector<std::shared_ptr<Conn>> targets;
    std::lock_guard<std::mutex> guard(lock_);
    for (auto& c : conns_) {
        if (c->subscribed)
            targets.push_back(c);
    }
    return targets;
}

int Camera::Broadcast(const std::string& bytes, const std::string& body) {
    std::vector<std::shared_ptr<Conn>> targets = SubscribedConns();
    int sent = 0;
    for (auto& c : targets) {
        if (c->Send(bytes))
            ++sent;
    }
    std::function<void(const std::string&, int)> listener;
    {
        std::lock_guard<std::mutex> guard(lock_);
        listener = on_event_;
    }
    if (listener)
        listener(body, sent);
    return sent;
}

int Camera::SendRawTimed(const std::string& bytes, bool reverse,
                         std::vector<uint64_t>* started_ns) {
    std::vector<std::shared_ptr<Conn>> targets = SubscribedConns();
    started_ns->assign(targets.size(), 0);
    int sent = 0;
    for (size_t k = 0; k < targets.size(); ++k) {
        size_t i = reverse ? targets.size() - 1 - k : k;
        timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        (*started_ns)[i] =
            static_cast<uint64_t>(now.tv_sec) * 1000000000u + static_cast<uint64_t>(now.tv_nsec);
        sent += targets[i]->Send(bytes) ? 1 : 0;
    }
    return sent;
}

void Camera::SetSendTimeoutMs(int ms) {
    std::lock_guard<std::mutex> guard(lock_);
    send_timeout_ms_ = ms;
}

void Camera::Restart() {
    DropConnections();
    SetTotals(0, 0);
}

bool Camera::WaitForSubscribers(int n, int timeout_ms) {
    std::unique_lock<std::mutex> guard(lock_);
    auto count = [this] {
        int k = 0;
        for (auto& c : conns_)
            k += c->subscribed ? 1 : 0;
        return k;
    };
    return changed_.wait_for(guard, std::chrono::milliseconds(timeout_ms),
                             [&] { return count() >= n; });
}

int Camera::Subscribers() {
    std::lock_guard<std::mutex> guard(lock_);
    int k = 0;
    for (auto& c : conns_)
        k += c->subscribed ? 1 : 0;
    return k;
}

void Camera::OnEvent(std::function<void(const std::string&, int)> listener) {
    std::lock_guard<std::mutex> guard(lock_);
    on_event_ = std::move(listener);
}

void Camera::OnNote(std::function<void(const std::string&)> listener) {
    std::lock_guard<std::mutex> guard(lock_);
    on_note_ = std::move(listener);
}

void Camera::Note(const std::string& text) {
    std::function<void(const std::string&)> listener;
    {
        std::lock_guard<std::mutex> guard(lock_);
        listener = on_note_;
    }
    if (listener)
        listener(text);
}

}  // namespace camsim
