#ifndef CAMSIM_CAMERA_SIM_H
#define CAMSIM_CAMERA_SIM_H

// Camera simulator: plays network cameras on loopback for tests and by hand.
// Each Camera listens on one TCP port, reads every HTTP request (head, then
// body by Content-Length), records it and hands it to the handler registered
// for its method and path. Every camera answers the LAPI event subscription
// and then streams people-counting events on that connection, from a
// "people walking" model or as scripted by the caller; it can also misbehave
// on purpose (see Subscribe and the Send*/Drop* operations).

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace camsim {

// One request as the camera received it.
struct Request {
    std::string method;
    std::string target;  // as written: path plus "?query" if any
    std::string path;
    std::string query;
    std::string version;
    std::vector<std::pair<std::string, std::string>> headers;  // in received order
    std::string body;
    std::string raw;     // every byte of the request, head and body
    int connection = 0;  // serial number of the connection it came on (from 1)

    // Value of the first header with this name (case-insensitive), "" if none.
    std::string Header(const std::string& name) const;
    bool HasHeader(const std::string& name) const;
};

// The camera's running people totals.
struct Totals {
    int in = 0;
    int out = 0;
};

// What a handler can do with the connection a request came on.
class Exchange {
public:
    virtual ~Exchange() = default;
    // Writes raw bytes; false when the peer is gone.
    virtual bool Send(const std::string& bytes) = 0;
    // Writes a complete answer with Content-Type and Content-Length.
    virtual bool Reply(int status, const std::string& body,
                       const std::string& content_type = "application/json") = 0;
    // From now on the camera's counting events are sent on this connection.
    virtual void KeepForEvents() = 0;
    // Closes the connection once the handler returns.
    virtual void CloseAfter() = 0;
};

using Handler = std::function<void(const Request&, Exchange&)>;

// How the camera answers "POST /LAPI/V1.0/System/Event/Subscription".
enum class Subscribe {
    Ok,              // 200, small JSON body, then events on the connection
    Unauthorized,    // 401 with a body
    OkWithoutBody,   // 200 without Content-Length
    OkZeroLength,    // 200 with "Content-Length: 0"
    OkShortBody,     // 200 announcing 40 body bytes, sends 10, closes
    OkHugeBody,      // 200 with a 4096-byte body
    LongHeaderLine,  // 200 with a 600-byte header line
    CloseMidHead,    // half a status line, then close
    Garbage,         // binary bytes, then close
    Silent,          // never answers, keeps the connection open
    Trickle,         // a correct 200 answer, one byte a second
    CloseAtOnce,     // closes without a byte
};

class Camera {
public:
    // bind_address must be a loopback address or one inside a namespace the
    // caller created. port 0 picks a free port.
    explicit Camera(int port = 0, const std::string& bind_address = "127.0.0.1");
    virtual ~Camera();
    Camera(const Camera&) = delete;
    Camera& operator=(const Camera&) = delete;

    // Binds and starts accepting. False (with errno) when the port is taken.
    bool Start();
    // Closes every connection and the listener; joins all threads.
    void Stop();
    int Port() const { return port_; }
    const std::string& Address() const { return address_; }

    // Routes. A later route for the same method and path replaces the earlier.
    void AddRoute(const std::string& method, const std::string& path, Handler handler);

    // Totals, read or changed under the simulator's lock.
    Totals GetTotals();
    void SetTotals(int in, int out);
    void WithTotals(const std::function<void(Totals&)>& change);

    // Behaviour of the subscription answer (default Ok).
    void SetSubscribe(Subscribe how);
    // Refusing: the listener is closed, connects get "connection refused";
    // returns once in effect.
    void SetRefusing(bool refuse);

    // Events, to every subscribed connection; each returns how many got it.
    // Counts obj_in people in and obj_out out, then sends the new totals.
    int Walk(int obj_in, int obj_out);
    // Sends the current totals with the given per-event numbers.
    int SendTotals(int obj_in = 0, int obj_out = 0);
    // Sends this JSON text as the body of one well-formed event message.
    int SendBody(const std::string& json);
    // Sends these bytes as they are (broken heads, garbage, half messages).
    int SendRaw(const std::string& bytes);
    // SendRaw for measuring: one write per subscribed connection, in the
    // order the connections were made (the other way round with reverse);
    // started_ns gets, in the order made, the CLOCK_MONOTONIC time just
    // before each write began.
    int SendRawTimed(const std::string& bytes, bool reverse, std::vector<uint64_t>* started_ns);
    // Text of one event message carrying this body.
    static std::string EventMessage(const std::string& json);
    static std::string EventBody(int obj_in, int obj_out, const Totals& totals);

    // Counting as a camera switches it with "Enable=0" and "Enable=1": while
    // off, people walking past are not counted and Walk sends nothing.
    void SetCountingEnabled(bool on);
    bool CountingEnabled();

    // People-walking model: random arrivals at people_per_min, each one in or
    // out (out only while someone is inside). 0 stops it.
    void StartWalking(double people_per_min, uint32_t seed);
    void StopWalking();

    // How long a write to a connection that takes nothing may block before
    // the connection counts as gone (default 2000 ms, 0: no limit); for
    // connections accepted after the call.
    void SetSendTimeoutMs(int ms);

    // Misbehaviour on the connection level.
    void DropConnections();  // closes every open connection
    void Restart();          // drops every connection and sets the totals to 0

    // Observation.
    std::vector<Request> Requests();
    void ClearRequests();
    // Waits until at least n requests were recorded (or n subscribed
    // connections are open); false on time-out.
    bool WaitForRequests(size_t n, int timeout_ms);
    bool WaitForSubscribers(int n, int timeout_ms);
    int Subscribers();
    int OpenConnections();
    int AcceptedConnections();

    // Called on the sending thread after every event (body, receivers) and
    // after every request received; for the executable's output.
    void OnEvent(std::function<void(const std::string&, int)> listener);
    void OnRequest(std::function<void(const Request&)> listener);
    // Called with a line for the executable's output when the camera takes
    // a settings or enable request.
    void OnNote(std::function<void(const std::string&)> listener);
    void Note(const std::string& text);

private:
    struct Conn;
    class ConnExchange;

    bool OpenListener();
    void CloseListener();
    void AcceptLoop();
    void ServeConnection(std::shared_ptr<Conn> conn);
    bool ReadRequest(Conn& conn, std::string& pending, Request& req);
    Handler FindRoute(const Request& req);
    void AnswerSubscription(const Request& req, Exchange& ex);
    // Sends bytes one at a time, a second apart; false once the connection
    // or the camera is gone.
    bool Trickle(const std::string& bytes, Exchange& ex);
    void WalkLoop(double people_per_min, uint32_t seed);
    void ReapFinished();
    void Wake();
    int Broadcast(const std::string& bytes, const std::string& body);
    std::vector<std::shared_ptr<Conn>> SubscribedConns();

    int port_;
    std::string address_;
    int listen_fd_ = -1;
    int wake_fd_ = -1;
    bool started_ = false;
    bool stopping_ = false;
    bool refuse_wanted_ = false;
    bool refusing_ = false;
    int conn_serial_ = 0;
    Subscribe subscribe_ = Subscribe::Ok;
    Totals totals_;
    std::vector<Request> requests_;
    std::vector<std::shared_ptr<Conn>> conns_;
    std::map<std::pair<std::string, std::string>, Handler> routes_;
    std::function<void(const std::string&, int)> on_event_;
    std::function<void(const Request&)> on_request_;
    std::function<void(const std::string&)> on_note_;
    bool counting_enabled_ = true;
    std::mutex lock_;
    std::condition_variable changed_;
    std::thread acceptor_;
    std::thread walker_;
    bool walking_ = false;
    int send_timeout_ms_ = 2000;
};

// Extra endpoint sets for the executable, registered by other files of this
// folder from a static initialiser (the executable links the whole library).
// A kind with an option ("--tarn") starts one camera per "--tarn PORT"; the
// installer of kind "lapi" also runs for every "--lapi PORT" camera.
struct CameraKind {
    std::string name;    // "lapi" or the registering file's kind
    std::string option;  // command-line option, "" to only extend "--lapi"
    std::string help;    // one line for --help
    std::function<void(Camera&)> install;
};
bool RegisterCameraKind(const CameraKind& kind);
std::vector<CameraKind> RegisteredKinds();

}  // namespace camsim

#endif
