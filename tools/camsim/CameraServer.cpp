// The simulator's HTTP side: listening, connections, requests, routes.
#include "CameraSim.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
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

#include "CameraConn.h"

namespace camsim {

namespace {

const size_t kMaxHead = 64 * 1024;

const long kMaxBody = 1024 * 1024;

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

// A write blocks at most send_timeout_ms (0: no limit); events leave at
// once, as a camera's do, not held back to fill a segment.
void SetConnectionOptions(int fd, int send_timeout_ms) {
    timeval tv = {send_timeout_ms / 1000, (send_timeout_ms % 1000) * 1000};
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv));
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
}

}  // namespace

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
                auto conn = std::make_shared<Conn>();
                conn->fd = fd;
                std::lock_guard<std::mutex> guard(lock_);
                SetConnectionOptions(fd, send_timeout_ms_);
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
    // Appends what the connection has next; false once it is closed or failed.
    auto receive_more = [&conn, &pending] {
        char buf[4096];
        ssize_t n;
        do {
            n = recv(conn.fd, buf, sizeof(buf), 0);
        } while (n < 0 && errno == EINTR);
        if (n <= 0)
            return false;
        pending.append(buf, static_cast<size_t>(n));
        return true;
    };
    size_t head_len;
    while ((head_len = HeadEnd(pending)) == std::string::npos) {
        if (pending.size() > kMaxHead || !receive_more())
            return false;
    }
    ParseHead(pending.substr(0, head_len), req);
    long length = std::strtol(req.Header("Content-Length").c_str(), nullptr, 10);
    if (length < 0 || length > kMaxBody)
        return false;
    size_t total = head_len + static_cast<size_t>(length);
    while (pending.size() < total) {
        if (!receive_more())
            return false;
    }
    req.raw = pending.substr(0, total);
    req.body = req.raw.substr(head_len);
    pending.erase(0, total);
    return true;
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

void Camera::OnRequest(std::function<void(const Request&)> listener) {
    std::lock_guard<std::mutex> guard(lock_);
    on_request_ = std::move(listener);
}

}  // namespace camsim
