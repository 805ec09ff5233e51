#include <sys/msg.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "IpcTestUtil.h"
#include "NModuleInterface.h"

using ipctest::Reap;
using ipctest::Spawn;

namespace {

const int kKey = 601;

TEST(EventQueue, OpenerInAnotherProcessReachesTheOwner) {
    ENTER_IPC_NAMESPACE_OR_SKIP();
    {
        NEventMQ owner(kKey, true);
        char buf[256];
        auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(owner.Wait(5, 0), 0);
        EXPECT_EQ(owner.Recv(buf, sizeof(buf)), -1);
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));

        pid_t peer = Spawn([] {
            NEventMQ opener(kKey, false);
            std::string full(256, 'x');
            return opener.Send("a=1", 3) == 3 && opener.Send(full.c_str(), 256) == 256 ? 0 : 1;
        });
        ASSERT_EQ(Reap(peer), 0);
        EXPECT_EQ(owner.Wait(5, 0), 2);
        EXPECT_EQ(owner.Recv(buf, sizeof(buf)), 3);
        EXPECT_STREQ(buf, "a=1");
        // 256 bytes do not fit a 256-byte buffer with its zero: consumed and dropped.
        EXPECT_EQ(owner.Recv(buf, sizeof(buf)), -1);
        EXPECT_EQ(owner.Wait(0, 0), 0);
    }
    EXPECT_LT(msgget(kKey, 0), 0) << "the owner removes its queue at the end";
    NEventMQ none;
    EXPECT_EQ(none.Wait(0, 0), -1);
}

bool QueueExists() {
    return msgget(kKey, 0) >= 0;
}

// A child that owns the queue and expects one text.
int OwnerExpecting(const char* text) {
    NEventMQ owner(kKey, true);
    char buf[256];
    bool arrived = ppltest::WaitFor(5000, [&] { return owner.Wait(0, 0) > 0; });
    return arrived && owner.Recv(buf, sizeof(buf)) > 0 && std::strcmp(buf, text) == 0 ? 0 : 1;
}

TEST(EventQueue, OpenerFollowsItsOwnerThroughEndAndRecreation) {
    ENTER_IPC_NAMESPACE_OR_SKIP();
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

std::string ThreadText(int thread, int seq) {
    return "thread=" + std::to_string(thread) + "&seq=" + std::to_string(seq) +
           "&fill=" + std::string((seq * 7) % 40, static_cast<char>('a' + thread));
}

TEST(EventQueue, ConcurrentSendersOnOneEndpointDeliverWholeTexts) {
    ENTER_IPC_NAMESPACE_OR_SKIP();
    const int kThreads = 8, kPerThread = 2000;
    NEventMQ owner(kKey, true);
    NEventMQ opener(kKey, false);
    std::multiset<std::string> received, expected;
    std::thread reader([&] {
        char buf[256];
        auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(8);
        while (received.size() < kThreads * kPerThread &&
               std::chrono::steady_clock::now() < give_up) {
            int waiting = owner.Wait(0, 0);
            if (waiting <= 0) {
                std::this_thread::yield();
                continue;
            }
            for (int i = 0; i < waiting; ++i) {
                int got = owner.Recv(buf, sizeof(buf));
                received.insert(got > 0 ? std::string(buf, got) : "<failed>");
            }
        }
    });
    std::atomic<int> started{0}, failures{0};
    std::vector<std::thread> senders;
    for (int t = 0; t < kThreads; ++t) {
        senders.emplace_back([&, t] {
            started.fetch_add(1);
            while (started.load() < kThreads)
                std::this_thread::yield();
            for (int seq = 0; seq < kPerThread; ++seq) {
                std::string text = ThreadText(t, seq);
                // At most 200 + kThreads texts of under 64 bytes: the queue never fills.
                while (owner.Wait(0, 0) >= 200)
                    std::this_thread::yield();
                if (opener.Send(text.c_str(), text.size()) != static_cast<int>(text.size()))
                    ++failures;
            }
        });
    }
    for (std::thread& s : senders)
        s.join();
    reader.join();
    EXPECT_EQ(failures.load(), 0);
    for (int t = 0; t < kThreads; ++t)
        for (int seq = 0; seq < kPerThread; ++seq)
            expected.insert(ThreadText(t, seq));
    EXPECT_TRUE(received == expected) << "texts were lost, doubled or mixed";
}

TEST(EventQueue, TextsBeyondTheRecordAreRefusedOrDropped) {
    ENTER_IPC_NAMESPACE_OR_SKIP();
    NMQEventHandler owner(kKey);
    NMQEventRaiser opener(kKey);
    std::string largest(kEventTextSize - 1, 'L'), too_long(kEventTextSize, 'T');
    EXPECT_EQ(opener.Send(too_long.c_str(), too_long.size()), -1);
    EXPECT_EQ(opener.Send(largest.c_str(), largest.size()), kEventTextSize - 1);
    static char buf[kEventTextSize + 8];
    EXPECT_EQ(owner.Recv(buf, sizeof(buf)), kEventTextSize - 1);
    EXPECT_EQ(largest, buf);

    // Another module's message larger than a record must not jam the queue.
    static struct {
        long type;
        char text[5000];
    } foreign = {1, {0}};
    ASSERT_EQ(msgsnd(msgget(kKey, 0), &foreign, sizeof(foreign.text), IPC_NOWAIT), 0);
    EXPECT_EQ(owner.Recv(buf, sizeof(buf)), -1);
    EXPECT_EQ(owner.Wait(0, 0), 0);
}

TEST(EventQueueList, SendsToEveryQueueAndHoldsAtMostSixteen) {
    ENTER_IPC_NAMESPACE_OR_SKIP();
    NEventMQ first(700, true), second(701, true);
    NEventQueueList list;
    EXPECT_EQ(list.RegisterQueue(700), 0);
    EXPECT_EQ(list.RegisterQueue(799), 1);  // nobody owns it
    EXPECT_EQ(list.RegisterQueue(701), 2);
    EXPECT_LT(list.Send("y", 1), 0);
    EXPECT_EQ(first.Wait(0, 0), 1);
    EXPECT_EQ(second.Wait(0, 0), 1) << "a failing queue does not stop the others";

    for (int i = 3; i < 16; ++i)
        list.RegisterQueue(701);
    EXPECT_EQ(list.RegisterQueue(700), 0);
    EXPECT_EQ(list.GetCount(), 16);
}

TEST(PosixMsgQ, CarriesMessagesByPriorityWithoutWaiting) {
    ENTER_IPC_NAMESPACE_OR_SKIP();
    NPosixMsgQ queue, other;
    ASSERT_TRUE(queue.create("/ppl-ipc", 4, 128));
    EXPECT_EQ(queue.getMsgBufferSize(), 128);
    EXPECT_TRUE(queue.send("low", 3, 1) && queue.send("high", 4, 9));
    EXPECT_EQ(queue.getNumMessages(), 2);
    ASSERT_TRUE(other.open("/ppl-ipc"));
    char buf[128];
    unsigned int priority = 0;
    EXPECT_EQ(other.recv(buf, sizeof(buf), &priority), 4);
    EXPECT_EQ(priority, 9u);
    EXPECT_EQ(other.recv(buf, sizeof(buf), &priority), 3);
    EXPECT_EQ(other.recv(buf, sizeof(buf), &priority), -1);
    EXPECT_TRUE(queue.destroy());
    EXPECT_FALSE(other.open("/ppl-ipc"));
}

}  // namespace
