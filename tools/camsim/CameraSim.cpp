#include "CameraSim.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <strings.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <sstream>

namespace camsim {

namespace {

const char* const kSubscriptionPath = "/LAPI/V1.0/System/Event/Subscription";
const char* const kEventPath = "/LAPI/V1.0/System/Event/Notification";
const size_t kMaxHead = 64 * 1024;
const long kMaxBody = 1024 * 1024;

const char* ReasonPhrase(int status) {
    switch (status) {
        case 200:
            return "OK";
        case 400:
            return "Bad Request";
        case 401:
            return "Unauthorized";
        case 404:
            return "Not Found";
        case 500:
            return "Internal Server Error";
        default:
            return "Status";
    }
}

std::string Trim(const std::string& s) {
    size_t b = s.find_first_not_of(" \t");
    if (b == std::string::npos)
        return "";
    size_t e = s.find_last_not_of(" \t\r");
    return s.substr(b, e - b + 1);
}

// End of the head (index just past the empty line), or npos.
size_t HeadEnd(const std::string& data) {
    size_t crlf = data.find("\r\n\r\n");
    size_t lflf = data.find("\n\n");
    size_t a = crlf == std::string::npos ? std::string::npos : crlf + 4;
    size_t b = lflf == std::string::npos ? std::string::npos : lflf + 2;
    return a < b ? a : b;
}

void ParseHead(const std::string& head, Request& req) {
    std::istringstream lines(head);
    std::string line;
    bool first = true;
    while (std::getline(lines, line)) {
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        if (first) {
            std::istringstream words(line);
            words >> req.method >> req.target >> req.version;
            size_t q = req.target.find('?');
            req.path = req.target.substr(0, q);
            req.query = q == std::string::npos ? "" : req.target.substr(q + 1);
            first = false;
            continue;
        }
        size_t colon = line.find(':');
        if (colon == std::string::npos)
            continue;
        req.headers.emplace_back(line.substr(0, colon), Trim(line.substr(colon + 1)));
    }
}

std::mutex& RegistryLock() {
    static std::mutex m;
    return m;
}

std::vector<CameraKind>& Registry() {
    static std::vector<CameraKind> kinds;
    return kinds;
}

}  // namespace

std::string Request::Header(const std::string& name) const {
    for (const auto& h : headers) {
        if (strcasecmp(h.first.c_str(), name.c_str()) == 0)
            return h.second;
    }
    return "";
}

bool Request::HasHeader(const std::string& name) const {
    for (const auto& h : headers) {
        if (strcasecmp(h.first.c_str(), name.c_str()) == 0)
            return true;
    }
    return false;
}

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
        size_t done = 0;
        while (done < bytes.size()) {
            ssize_t n = send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0)
                return false;
            done += static_cast<size_t>(n);
        }
        return true;
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

Camera::Camera(int port, const std::string& bind_address) : port_(port), address_(bind_address) {
    AddRoute("POST", kSubscriptionPath,
             [this](const Request& req, Exchange& ex) { AnswerSubscription(req, ex); });
}

Camera::~Camera() {
    Stop();
}

bool Camera::Start() {
    if (started_)
        return true;
    wake_fd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (wake_fd_ < 0)
        return false;
    if (!OpenListener()) {
        int saved = errno;
        close(wake_fd_);
        wake_fd_ = -1;
        errno = saved;
        return false;
    }
    stopping_ = false;
    started_ = true;
    acceptor_ = std::thread(&Camera::AcceptLoop, this);
    return true;
}

void Camera::Stop() {
    std::vector<std::shared_ptr<Conn>> conns;
    {
        std::lock_guard<std::mutex> guard(lock_);
        if (!started_)
            return;
        stopping_ = true;
        walking_ = false;
        for (auto& c : conns_) {
            std::lock_guard<std::mutex> w(c->write_lock);
            if (c->open)
                shutdown(c->fd, SHUT_RDWR);
        }
    }
    changed_.notify_all();
    Wake();
    if (acceptor_.joinable())
        acceptor_.join();
    if (walker_.joinable())
        walker_.join();
    {
        std::lock_guard<std::mutex> guard(lock_);
        conns.swap(conns_);
    }
    for (auto& c : conns) {
        if (c->thread.joinable())
            c->thread.join();
    }
    CloseListener();
    close(wake_fd_);
    wake_fd_ = -1;
    started_ = false;
}

bool Camera::OpenListener() {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return false;
    int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
    sockaddr_in sa;
    std::memset(&sa, 0, sizeof(sa));
    sa.sin_family = AF_INET;
    sa.sin_port = htons(static_cast<uint16_t>(port_));
    if (inet_pton(AF_INET, address_.c_str(), &sa.sin_addr) != 1) {
        close(fd);
        errno = EINVAL;
        return false;
    }
    socklen_t len = sizeof(sa);
    if (bind(fd, reinterpret_cast<sockaddr*>(&sa), len) != 0 || listen(fd, 16) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&sa), &len) != 0) {
        int saved = errno;
        close(fd);
        errno = saved;
        return false;
    }
    port_ = ntohs(sa.sin_port);
    listen_fd_ = fd;
    return true;
}

void Camera::CloseListener() {
    if (listen_fd_ >= 0)
        close(listen_fd_);
    listen_fd_ = -1;
}

void Camera::Wake() {
    if (wake_fd_ < 0)
        return;
    uint64_t one = 1;
    ssize_t n = write(wake_fd_, &one, sizeof(one));
    (void)n;
}

// The acceptor alone opens and closes the listener after Start, so refusing
// never closes a descriptor another thread is polling.
void Camera::AcceptLoop() {
    while (true) {
        {
            std::lock_guard<std::mutex> guard(lock_);
            if (stopping_)
                return;
            if (refuse_wanted_ != refusing_) {
                if (refuse_wanted_) {
                    CloseListener();
                } else {
                    OpenListener();
                }
                refusing_ = refuse_wanted_;
                changed_.notify_all();
            }
        }
        pollfd fds[2] = {{wake_fd_, POLLIN, 0}, {listen_fd_, POLLIN, 0}};
        int n = poll(fds, listen_fd_ >= 0 ? 2 : 1, 200);
        if (n > 0 && (fds[0].revents & POLLIN)) {
            uint64_t value;
            ssize_t r = read(wake_fd_, &value, sizeof(value));
            (void)r;
        }
        if (n > 0 && listen_fd_ >= 0 && (fds[1].revents & POLLIN)) {
            int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd >= 0) {
                timeval tv = {2, 0};
                setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv));
                auto conn = std::make_shared<Conn>();
                conn->fd = fd;
                std::lock_guard<std::mutex> guard(lock_);
                if (stopping_) {
                    close(fd);
                    return;
                }
                conn->serial = ++conn_serial_;
                conns_.push_back(conn);
                conn->thread = std::thread(&Camera::ServeConnection, this, conn);
            }
        }
        ReapFinished();
    }
}

void Camera::ReapFinished() {
    std::vector<std::shared_ptr<Conn>> done;
    {
        std::lock_guard<std::mutex> guard(lock_);
        for (auto it = conns_.begin(); it != conns_.end();) {
            if ((*it)->finished) {
                done.push_back(*it);
                it = conns_.erase(it);
            } else {
                ++it;
            }
        }
    }
    for (auto& c : done) {
        if (c->thread.joinable())
            c->thread.join();
    }
}

void Camera::ServeConnection(std::shared_ptr<Conn> conn) {
    std::string pending;
    while (true) {
        Request req;
        req.connection = conn->serial;
        if (!ReadRequest(*conn, pending, req))
            break;
        std::function<void(const Request&)> listener;
        {
            std::lock_guard<std::mutex> guard(lock_);
            requests_.push_back(req);
            listener = on_request_;
            changed_.notify_all();
        }
        if (listener)
            listener(req);
        ConnExchange ex(*this, *conn);
        Handler handler = FindRoute(req);
        if (handler) {
            handler(req, ex);
        } else {
            static_cast<Exchange&>(ex).Reply(404, "{\"Result\":404}");
        }
        if (ex.close_after())
            break;
    }
    {
        std::lock_guard<std::mutex> w(conn->write_lock);
        close(conn->fd);
        conn->open = false;
    }
    std::lock_guard<std::mutex> guard(lock_);
    conn->subscribed = false;
    conn->finished = true;
    changed_.notify_all();
}

bool Camera::ReadRequest(Conn& conn, std::string& pending, Request& req) {
    char buf[4096];
    size_t head_len;
    while ((head_len = HeadEnd(pending)) == std::string::npos) {
        if (pending.size() > kMaxHead)
            return false;
        ssize_t n = recv(conn.fd, buf, sizeof(buf), 0);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        pending.append(buf, static_cast<size_t>(n));
    }
    ParseHead(pending.substr(0, head_len), req);
    long length = std::strtol(req.Header("Content-Length").c_str(), nullptr, 10);
    if (length < 0 || length > kMaxBody)
        return false;
    size_t total = head_len + static_cast<size_t>(length);
    while (pending.size() < total) {
        ssize_t n = recv(conn.fd, buf, sizeof(buf), 0);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        pending.append(buf, static_cast<size_t>(n));
    }
    req.raw = pending.substr(0, total);
    req.body = req.raw.substr(head_len);
    pending.erase(0, total);
    return true;
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
        case Subscribe::CloseAtOnce:
            ex.CloseAfter();
            break;
    }
}

Handler Camera::FindRoute(const Request& req) {
    std::lock_guard<std::mutex> guard(lock_);
    auto route = routes_.find(std::make_pair(req.method, req.path));
    return route == routes_.end() ? Handler() : route->second;
}

void Camera::AddRoute(const std::string& method, const std::string& path, Handler handler) {
    std::lock_guard<std::mutex> guard(lock_);
    routes_[std::make_pair(method, path)] = std::move(handler);
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

void Camera::SetRefusing(bool refuse) {
    std::unique_lock<std::mutex> guard(lock_);
    refuse_wanted_ = refuse;
    if (!started_)
        return;
    guard.unlock();
    Wake();
    guard.lock();
    changed_.wait_for(guard, std::chrono::seconds(5),
                      [this] { return refusing_ == refuse_wanted_ || stopping_; });
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

int Camera::Broadcast(const std::string& bytes, const std::string& body) {
    std::vector<std::shared_ptr<Conn>> targets;
    std::function<void(const std::string&, int)> listener;
    {
        std::lock_guard<std::mutex> guard(lock_);
        for (auto& c : conns_) {
            if (c->subscribed)
                targets.push_back(c);
        }
        listener = on_event_;
    }
    int sent = 0;
    for (auto& c : targets) {
        if (c->Send(bytes))
            ++sent;
    }
    if (listener)
        listener(body, sent);
    return sent;
}

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

// A dropped connection stops counting as subscribed at once, not when its
// thread notices: a wait for the next subscriber must not be met by it.
void Camera::DropConnections() {
    std::lock_guard<std::mutex> guard(lock_);
    for (auto& c : conns_) {
        std::lock_guard<std::mutex> w(c->write_lock);
        if (c->open)
            shutdown(c->fd, SHUT_RDWR);
        c->subscribed = false;
    }
}

void Camera::Restart() {
    DropConnections();
    SetTotals(0, 0);
}

std::vector<Request> Camera::Requests() {
    std::lock_guard<std::mutex> guard(lock_);
    return requests_;
}

void Camera::ClearRequests() {
    std::lock_guard<std::mutex> guard(lock_);
    requests_.clear();
}

bool Camera::WaitForRequests(size_t n, int timeout_ms) {
    std::unique_lock<std::mutex> guard(lock_);
    return changed_.wait_for(guard, std::chrono::milliseconds(timeout_ms),
                             [&] { return requests_.size() >= n; });
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

int Camera::OpenConnections() {
    std::lock_guard<std::mutex> guard(lock_);
    int k = 0;
    for (auto& c : conns_)
        k += c->finished ? 0 : 1;
    return k;
}

int Camera::AcceptedConnections() {
    std::lock_guard<std::mutex> guard(lock_);
    return conn_serial_;
}

void Camera::OnEvent(std::function<void(const std::string&, int)> listener) {
    std::lock_guard<std::mutex> guard(lock_);
    on_event_ = std::move(listener);
}

void Camera::OnRequest(std::function<void(const Request&)> listener) {
    std::lock_guard<std::mutex> guard(lock_);
    on_request_ = std::move(listener);
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
