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
