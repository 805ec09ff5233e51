#include <gtest/gtest.h>
#include <sys/msg.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "NModuleInterface.h"
#include "SandboxGTest.h"

namespace {

using Clock = std::chrono::steady_clock;
const int kKey = 601;

// A private IPC namespace per test: the fixed keys collide with nothing.
class EventQueue : public ::testing::Test {
protected:
    void SetUp() override { PPL_ENTER_IPC_NAMESPACE_OR_SKIP(); }
};

// Runs body in a forked child; Reap returns body's result.
pid_t Spawn(const std::function<int()>& body) {
    pid_t pid = fork();
    if (pid == 0)
        _exit(body());
    return pid;
}

int Reap(pid_t pid) {
    int status = 0;
    return waitpid(pid, &status, 0) == pid && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// A child that owns the queue and expects one text.
int OwnerExpecting(const char* text) {
    NEventMQ owner(kKey, true);
    char buf[256];
    bool arrived = ppltest::WaitFor(5000, [&] { return owner.Wait(0, 0) > 0; });
    return arrived && owner.Recv(buf, sizeof(buf)) > 0 && std::strcmp(buf, text) == 0 ? 0 : 1;
}

bool QueueExists() {
    return msgget(kKey, 0) >= 0;
}

}  // namespace

TEST_F(EventQueue, OpenerInAnotherProcessReachesTheOwner) {
    {
        NEventMQ owner(kKey, true);
        auto start = Clock::now();
        EXPECT_EQ(owner.Wait(5, 0), 0);
        EXPECT_LT(Clock::now() - start, std::chrono::seconds(2)) << "Wait never blocks";
        pid_t peer = Spawn([] {
            NEventMQ opener(kKey, false);
            std::string full(256, 'x');
            return opener.Send("a=1", 3) == 3 && opener.Send(full.c_str(), 256) == 256 ? 0 : 1;
        });
        ASSERT_EQ(Reap(peer), 0);
        EXPECT_EQ(owner.Wait(5, 0), 2);
        char buf[256];
        EXPECT_EQ(owner.Recv(buf, sizeof(buf)), 3);
        EXPECT_STREQ(buf, "a=1");
        // 256 bytes do not fit a 256-byte buffer with its zero: consumed and dropped.
        EXPECT_EQ(owner.Recv(buf, sizeof(buf)), -1);
        EXPECT_EQ(owner.Wait(0, 0), 0);
    }
    EXPECT_FALSE(QueueExists()) << "the owner removes its queue at the end";
}

TEST_F(EventQueue, OpenerFollowsItsOwnerThroughEndAndRecreation) {
    pid_t first = Spawn([] { return OwnerExpecting("first"); });
    ASSERT_TRUE(ppltest::WaitFor(5000, QueueExists));
    NEventMQ opener(kKey, false);
    EXPECT_EQ(opener.Send("first", 5), 5);
    ASSERT_EQ(Reap(first), 0);

    EXPECT_EQ(opener.Send("lost", 4), -1) << "no queue after the owner ended, even on retry";

    pid_t second = Spawn([] { return OwnerExpecting("again"); });
    ASSERT_TRUE(ppltest::WaitFor(5000, QueueExists));
    EXPECT_EQ(opener.Send("again", 5), 5);
    EXPECT_EQ(Reap(second), 0);
}

TEST_F(EventQueue, ConcurrentSendersOnOneEndpointDeliverWholeTexts) {
    const int kThreads = 8, kPerThread = 2000;
    NEventMQ owner(kKey, true), opener(kKey, false);
    auto text = [](int thread, int seq) {
        return "thread=" + std::to_string(thread) + "&seq=" + std::to_string(seq) +
               "&fill=" + std::string((seq * 7) % 40, static_cast<char>('a' + thread));
    };
    std::atomic<int> failures{0};
    std::vector<std::thread> senders;
    for (int t = 0; t < kThreads; ++t) {
        senders.emplace_back([&, t] {
            for (int seq = 0; seq < kPerThread; ++seq) {
                std::string sent = text(t, seq);
                while (owner.Wait(0, 0) >= 200)  // short texts: the queue never fills
                    std::this_thread::yield();
                if (opener.Send(sent.c_str(), sent.size()) != static_cast<int>(sent.size()))
                    ++failures;
            }
        });
    }
    std::multiset<std::string> received, expected;
    char buf[256];
    for (auto give_up = Clock::now() + std::chrono::seconds(8);
         received.size() < kThreads * kPerThread && Clock::now() < give_up;) {
        int got = owner.Wait(0, 0) > 0 ? owner.Recv(buf, sizeof(buf)) : 0;
        if (got != 0)
            received.insert(got > 0 ? std::string(buf, got) : "<failed>");
    }
    for (std::thread& s : senders)
        s.join();
    EXPECT_EQ(failures.load(), 0);
    for (int t = 0; t < kThreads; ++t)
        for (int seq = 0; seq < kPerThread; ++seq)
            expected.insert(text(t, seq));
    EXPECT_TRUE(received == expected) << "texts were lost, doubled or mixed";
}

TEST_F(EventQueue, TextsBeyondTheRecordAreRefusedOrDropped) {
    NMQEventHandler owner(kKey);
    NMQEventRaiser opener(kKey);
    std::string largest(kEventTextSize - 1, 'L'), too_long(kEventTextSize, 'T');
    EXPECT_EQ(opener.Send(too_long.c_str(), too_long.size()), -1);
    EXPECT_EQ(opener.Send(largest.c_str(), largest.size()), kEventTextSize - 1);
    static char buf[kEventTextSize + 8];
    EXPECT_EQ(owner.Recv(buf, sizeof(buf)), kEventTextSize - 1);
    EXPECT_EQ(largest, buf);

    // Another module's message larger than a record must not jam the queue.
    std::vector<long> foreign(1 + 5000 / sizeof(long), 0);  // type, then the text
    foreign[0] = 1;
    ASSERT_EQ(msgsnd(msgget(kKey, 0), foreign.data(), 5000, IPC_NOWAIT), 0);
    EXPECT_EQ(owner.Recv(buf, sizeof(buf)), -1);
    EXPECT_EQ(owner.Wait(0, 0), 0);
}

TEST_F(EventQueue, ListSendsToEveryQueueAndHoldsAtMostSixteen) {
    NEventMQ first(700, true), second(701, true);
    NEventQueueList list;
    int index = 0;
    for (int key : {700, 799, 701})  // nobody owns 799
        EXPECT_EQ(list.RegisterQueue(key), index++);
    EXPECT_LT(list.Send("y", 1), 0);
    EXPECT_EQ(second.Wait(0, 0), 1) << "a failing queue does not stop the others";
    for (int i = 3; i < 16; ++i)
        list.RegisterQueue(701);
    EXPECT_EQ(list.RegisterQueue(700), 0);
    EXPECT_EQ(list.GetCount(), 16);
}

namespace {

// Whether thread tid of this process sleeps (in a blocking call).
bool Sleeping(pid_t tid) {
    std::string status = ppltest::ReadWholeFile("/proc/self/task/" + std::to_string(tid) + "/stat");
    size_t close = status.rfind(')');
    return close != std::string::npos && status.compare(close, 4, ") S ") == 0;
}

}  // namespace

TEST_F(EventQueue, SystemVQueueFullOversizeAndRemovedUnderAReader) {
    NSysVMsgQ queue, other;
    ASSERT_TRUE(queue.create(kKey));
    ASSERT_TRUE(other.create(kKey)) << "creating a queue that exists gets it";
    EXPECT_EQ(other.getMQId(), queue.getMQId());
    testing::internal::CaptureStderr();
    EXPECT_FALSE(NSysVMsgQ().open(kKey + 1));
    // A type and room for 9000 bytes of text, beyond the largest message.
    std::vector<long> record(1 + 9000 / sizeof(long), 1);
    const int chunk = queue.getMsgBufferSize() / 4;
    ASSERT_GT(chunk, 0);
    for (int i = 0; i < 4; ++i)
        ASSERT_TRUE(queue.send(record.data(), chunk, IPC_NOWAIT));
    EXPECT_FALSE(queue.send(record.data(), 1, IPC_NOWAIT));
    EXPECT_EQ(errno, EAGAIN) << "a full queue refuses at once";
    EXPECT_EQ(queue.getNumMessages(), 4);
    EXPECT_EQ(NEventMQ(kKey, false).Send("y", 1), -1) << "full, even on the retry";
    EXPECT_FALSE(other.send(record.data(), 9000, IPC_NOWAIT)) << "beyond the largest message";
    EXPECT_EQ(queue.recv(record.data(), 10, 0, IPC_NOWAIT), -1) << "a buffer too small";
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(queue.recv(record.data(), 9000, 0, IPC_NOWAIT), chunk);

    std::atomic<pid_t> reader_tid{0};
    int got = 0, woke = 0;
    std::thread reader([&] {
        reader_tid = gettid();
        got = other.recv(record.data(), 9000, 0, 0);
        woke = errno;
    });
    EXPECT_TRUE(ppltest::WaitFor(5000, [&] { return reader_tid != 0 && Sleeping(reader_tid); }));
    ASSERT_TRUE(queue.destroy());
    reader.join();
    EXPECT_EQ(got, -1);
    EXPECT_EQ(woke, EIDRM) << "the blocked reader wakes when the queue goes";
    EXPECT_EQ(queue.getMQId(), -1);
    EXPECT_FALSE(queue.destroy());
    EXPECT_EQ(other.getNumMessages(), -1);
    EXPECT_EQ(other.getMsgBufferSize(), -1);
    std::string log = testing::internal::GetCapturedStderr();
    for (const char* operation : {"open", "send", "recv", "destroy", "getNumMessages"})
        EXPECT_NE(log.find(std::string(":") + operation + "()\t["), std::string::npos) << operation;
}

TEST_F(EventQueue, EndpointCreatesConnectsAndLetsGo) {
    NEventMQ endpoint;
    IEvent none;  // the interface's own versions fail
    char buf[8];
    EXPECT_EQ(none.Send("x", 1), -1);
    EXPECT_EQ(none.Recv(buf, sizeof(buf)), -1);
    EXPECT_EQ(none.Wait(0, 0), -1);
    testing::internal::CaptureStderr();
    EXPECT_EQ(endpoint.Wait(0, 0), -1);
    EXPECT_EQ(endpoint.Recv(buf, sizeof(buf)), -1);
    EXPECT_EQ(endpoint.destroy(), -1);
    ASSERT_TRUE(endpoint.create(700));
    EXPECT_EQ(endpoint.GetKey(), -1) << "an owner";
    EXPECT_FALSE(endpoint.connect(701)) << "nobody owns 701";
    EXPECT_LT(msgget(700, 0), 0) << "an owner that turns opener removes its queue";
    EXPECT_EQ(endpoint.GetKey(), 701);
    NEventMQ peer(701, true);
    ASSERT_TRUE(endpoint.connect(701));
    EXPECT_EQ(endpoint.Send("x", 1), 1);
    endpoint.disconnect();
    EXPECT_EQ(endpoint.GetMQId(), -1);
    EXPECT_EQ(peer.Wait(0, 0), 1) << "an opener lets go without removing";
    ASSERT_TRUE(endpoint.create(702));
    endpoint.disconnect();
    EXPECT_LT(msgget(702, 0), 0) << "an owner's queue goes with it";
    EXPECT_EQ(peer.destroy(), 0);
    EXPECT_LT(msgget(701, 0), 0);
    testing::internal::GetCapturedStderr();
}

TEST_F(EventQueue, PosixQueueFullOversizeAndRemovedWhileOpen) {
    NPosixMsgQ queue, reader;
    char buf[64];
    unsigned int priority = 0;
    std::string too_long = "/" + std::string(300, 'n'), oversize(65, 'o');
    testing::internal::CaptureStderr();
    EXPECT_FALSE(queue.create(too_long.c_str(), 2, 64));
    EXPECT_FALSE(queue.open(too_long.c_str()));
    EXPECT_FALSE(queue.open("/ppl-absent"));
    EXPECT_FALSE(queue.create("/ppl-none", 0, 64)) << "room for no message";
    ASSERT_TRUE(queue.create("/ppl-test", 2, 64));
    EXPECT_EQ(queue.getMsgBufferSize(), 64);
    EXPECT_TRUE(queue.send("a", 1, 0));
    EXPECT_TRUE(queue.send("bb", 2, 5));
    EXPECT_FALSE(queue.send("c", 1, 0)) << "full: refused without waiting";
    EXPECT_FALSE(queue.send(oversize.data(), oversize.size(), 0)) << "longer than a message";
    EXPECT_EQ(queue.getNumMessages(), 2);
    EXPECT_EQ(queue.recv(buf, 8, &priority), -1) << "a buffer smaller than a message";
    EXPECT_EQ(queue.recv(buf, sizeof(buf), &priority), 2) << "the higher priority first";
    EXPECT_EQ(priority, 5u);

    ASSERT_TRUE(reader.open("/ppl-test"));
    EXPECT_TRUE(queue.destroy());
    EXPECT_FALSE(NPosixMsgQ().open("/ppl-test")) << "the name is gone";
    EXPECT_EQ(reader.recv(buf, sizeof(buf), nullptr), 1) << "what is open stays usable";
    EXPECT_EQ(reader.recv(buf, sizeof(buf), nullptr), -1) << "empty";
    EXPECT_FALSE(queue.destroy()) << "nothing left to remove";
    EXPECT_FALSE(reader.destroy());
    EXPECT_FALSE(reader.send("x", 1, 0));
    EXPECT_EQ(reader.recv(buf, sizeof(buf), nullptr), -1);
    EXPECT_EQ(reader.getNumMessages(), -1);
    EXPECT_EQ(reader.getMsgBufferSize(), -1);
    std::string log = testing::internal::GetCapturedStderr();
    for (const char* operation : {"create", "open", "send", "recv", "destroy", "getAttr"})
        EXPECT_NE(log.find(std::string(":") + operation + "()\t["), std::string::npos) << operation;
}
