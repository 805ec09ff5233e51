#include <sys/msg.h>

#include <chrono>
#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "IpcTestUtil.h"
#include "NModuleInterface.h"

using ipctest::Baton;
using ipctest::Reap;
using ipctest::Spawn;

namespace {

const int kKey = 601;

TEST(EventQueue, OpenerInAnotherProcessReachesTheOwner) {
    ENTER_IPC_NAMESPACE_OR_SKIP();
    {
        NEventMQ owner(kKey, true);
        pid_t peer = Spawn([] {
            NEventMQ opener(kKey, false);
            return opener.Send("a=1", 3) == 3 &&
                           opener.Send(std::string(256, 'x').c_str(), 256) == 256
                       ? 0
                       : 1;
        });
        ASSERT_EQ(Reap(peer), 0);
        EXPECT_EQ(owner.Wait(0, 0), 2);
        char buf[256];
        EXPECT_EQ(owner.Recv(buf, sizeof(buf)), 3);
        EXPECT_STREQ(buf, "a=1");
        // 256 bytes do not fit a 256-byte buffer with its zero: consumed and dropped.
        EXPECT_EQ(owner.Recv(buf, sizeof(buf)), -1);
        EXPECT_EQ(owner.Wait(0, 0), 0);
    }
    EXPECT_LT(msgget(kKey, 0), 0) << "the owner removes its queue at the end";
}

TEST(EventQueue, WaitAndRecvNeverBlock) {
    ENTER_IPC_NAMESPACE_OR_SKIP();
    NEventMQ owner(kKey, true);
    char buf[256];
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(owner.Wait(5, 0), 0);
    EXPECT_EQ(owner.Recv(buf, sizeof(buf)), -1);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));

    NEventMQ none;
    EXPECT_EQ(none.Wait(0, 0), -1);
    EXPECT_EQ(none.Recv(buf, sizeof(buf)), -1);
    EXPECT_EQ(none.Send("a", 1), -1);
}

TEST(EventQueue, OpenerFollowsItsOwnerThroughEndAndRecreation) {
    ENTER_IPC_NAMESPACE_OR_SKIP();
    Baton ready, go;
    pid_t first = Spawn([&] {
        NEventMQ owner(kKey, true);
        ready.Pass();
        char buf[256];
        return go.Take() && owner.Recv(buf, sizeof(buf)) == 5 && std::strcmp(buf, "first") == 0 ? 0
                                                                                                : 1;
    });
    ASSERT_TRUE(ready.Take());
    NEventMQ opener(kKey, false);
    EXPECT_EQ(opener.Send("first", 5), 5);
    go.Pass();
    ASSERT_EQ(Reap(first), 0);

    EXPECT_EQ(opener.Send("lost", 4), -1) << "no queue after the owner ended, even on retry";

    pid_t second = Spawn([&] {
        NEventMQ owner(kKey, true);
        ready.Pass();
        char buf[256];
        bool arrived = ppltest::WaitFor(5000, [&] { return owner.Wait(0, 0) > 0; });
        return arrived && owner.Recv(buf, sizeof(buf)) == 5 && std::strcmp(buf, "again") == 0 ? 0
                                                                                              : 1;
    });
    ASSERT_TRUE(ready.Take());
    EXPECT_EQ(opener.Send("again", 5), 5);
    EXPECT_EQ(Reap(second), 0);
}

std::string ThreadText(int thread, int seq) {
    return "thread=" + std::to_string(thread) + "&seq=" + std::to_string(seq) +
           "&fill=" + std::string((seq * 7) % 40, static_cast<char>('a' + thread));
}

TEST(EventQueue, ConcurrentSendersOnOneEndpointDeliverWholeTexts) {
    ENTER_IPC_NAMESPACE_OR_SKIP();
    const int kThreads = 8, kPerThread = 25;  // stays below the queue's byte capacity
    NEventMQ owner(kKey, true);
    NEventMQ opener(kKey, false);
    std::vector<std::thread> senders;
    std::vector<int> failures(kThreads, 0);
    for (int t = 0; t < kThreads; ++t) {
        senders.emplace_back([&opener, &failures, t] {
            for (int seq = 0; seq < kPerThread; ++seq) {
                std::string text = ThreadText(t, seq);
                if (opener.Send(text.c_str(), text.size()) != static_cast<int>(text.size()))
                    ++failures[t];
            }
        });
    }
    for (std::thread& s : senders)
        s.join();
    std::set<std::string> expected, received;
    for (int t = 0; t < kThreads; ++t) {
        EXPECT_EQ(failures[t], 0);
        for (int seq = 0; seq < kPerThread; ++seq)
            expected.insert(ThreadText(t, seq));
    }
    char buf[256];
    while (owner.Wait(0, 0) > 0) {
        int got = owner.Recv(buf, sizeof(buf));
        ASSERT_GT(got, 0);
        received.insert(std::string(buf, got));
    }
    EXPECT_EQ(received, expected);
}

TEST(EventQueue, TextsBeyondTheRecordAreRefusedOrDropped) {
    ENTER_IPC_NAMESPACE_OR_SKIP();
    NEventMQ owner(kKey, true);
    NEventMQ opener(kKey, false);
    std::string largest(kEventTextSize - 1, 'L');
    std::string too_long(kEventTextSize, 'T');
    EXPECT_EQ(opener.Send(too_long.c_str(), too_long.size()), -1);
    EXPECT_EQ(opener.Send(largest.c_str(), largest.size()), kEventTextSize - 1);
    static char buf[kEventTextSize + 8];
    EXPECT_EQ(owner.Recv(buf, sizeof(buf)), kEventTextSize - 1);
    EXPECT_EQ(largest, buf);

    // Another module's message larger than a record must not jam the queue.
    struct {
        long type;
        char text[5000];
    } foreign = {1, {0}};
    ASSERT_EQ(msgsnd(msgget(kKey, 0), &foreign, sizeof(foreign.text), IPC_NOWAIT), 0);
    EXPECT_EQ(owner.Recv(buf, sizeof(buf)), -1);
    EXPECT_EQ(owner.Wait(0, 0), 0);
}

TEST(EventQueue, HandlerAndRaiserAreTheTwoHalves) {
    ENTER_IPC_NAMESPACE_OR_SKIP();
    NMQEventHandler handler(kKey);
    NMQEventRaiser raiser(kKey);
    EXPECT_EQ(raiser.Send("e=1", 3), 3);
    EXPECT_EQ(handler.Wait(0, 0), 1);
    char buf[16];
    EXPECT_EQ(handler.Recv(buf, sizeof(buf)), 3);
    EXPECT_STREQ(buf, "e=1");
    EXPECT_EQ(handler.Send("x", 1), -1);
    EXPECT_EQ(raiser.Wait(0, 0), -1);
}

TEST(EventQueueList, SendsToEveryQueueAndHoldsAtMostSixteen) {
    ENTER_IPC_NAMESPACE_OR_SKIP();
    NEventMQ first(700, true), second(701, true);
    NEventQueueList list;
    EXPECT_EQ(list.RegisterQueue(700), 0);
    EXPECT_EQ(list.RegisterQueue(701), 1);
    EXPECT_EQ(list.Send("x", 1), 1);
    EXPECT_EQ(first.Wait(0, 0), 1);
    EXPECT_EQ(second.Wait(0, 0), 1);

    EXPECT_EQ(list.RegisterQueue(799), 2);  // nobody owns it
    EXPECT_LT(list.Send("y", 1), 0);
    EXPECT_EQ(second.Wait(0, 0), 2) << "a failing queue does not stop the others";

    for (int i = 3; i < 16; ++i)
        EXPECT_EQ(list.RegisterQueue(700), i);
    EXPECT_EQ(list.RegisterQueue(700), 0);
    EXPECT_EQ(list.GetCount(), 16);
}

TEST(PosixMsgQ, CarriesMessagesWithPriority) {
    ENTER_IPC_NAMESPACE_OR_SKIP();
    NPosixMsgQ queue;
    ASSERT_TRUE(queue.create("/ppl-ipc", 4, 128));
    EXPECT_EQ(queue.getMsgBufferSize(), 128);
    EXPECT_TRUE(queue.send("low", 3, 1));
    EXPECT_TRUE(queue.send("high", 4, 9));
    EXPECT_EQ(queue.getNumMessages(), 2);
    char buf[128];
    unsigned int priority = 0;
    EXPECT_EQ(queue.recv(buf, sizeof(buf), &priority), 4);
    EXPECT_EQ(priority, 9u);
    EXPECT_EQ(std::string(buf, 4), "high");

    NPosixMsgQ other;
    ASSERT_TRUE(other.open("/ppl-ipc"));
    EXPECT_EQ(other.recv(buf, sizeof(buf), &priority), 3);
    EXPECT_EQ(other.recv(buf, sizeof(buf), &priority), -1) << "empty: no wait";
    EXPECT_TRUE(queue.destroy());
    EXPECT_FALSE(other.open("/ppl-ipc"));
}

}  // namespace
