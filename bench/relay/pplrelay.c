/* The floor of the event path: the least a program can do to turn a camera's
 * event messages into queue messages. One TCP connection and the camera's
 * event subscription on it, buffered reads, each message after the
 * subscription's answer (head, then Content-Length bytes of body) sent as one
 * System V message of the given type whose text is the body.
 * Usage: pplrelay PORT QUEUE_KEY TYPE   (connects to 127.0.0.1:PORT) */
#define _GNU_SOURCE
#include <arpa/inet.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/msg.h>
#include <sys/socket.h>
#include <unistd.h>

int main(int argc, char** argv) {
    if (argc != 4) {
        fprintf(stderr, "usage: %s PORT QUEUE_KEY TYPE\n", argv[0]);
        return 2;
    }
    struct sockaddr_in peer = {.sin_family = AF_INET, .sin_port = htons(atoi(argv[1]))};
    peer.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    struct {
        long type;
        char text[4092];
    } msg = {.type = atol(argv[3])};
    int queue = msgget(atoi(argv[2]), 0);
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    static const char subscribe[] =
        "POST /LAPI/V1.0/System/Event/Subscription HTTP/1.1\r\nContent-Length: 0\r\n\r\n";
    if (queue < 0 || fd < 0 || connect(fd, (struct sockaddr*)&peer, sizeof(peer)) != 0 ||
        write(fd, subscribe, sizeof(subscribe) - 1) != (ssize_t)(sizeof(subscribe) - 1)) {
        perror("pplrelay");
        return 1;
    }
    int answered = 0; /* the first message is the subscription's answer */
    static char buf[65536];
    size_t have = 0;
    long sent = 0, failed = 0;
    ssize_t n;
    while ((n = read(fd, buf + have, sizeof(buf) - have)) > 0) {
        size_t used = 0;
        have += (size_t)n;
        for (;;) {
            char* start = buf + used;
            char* end = memmem(start, have - used, "\r\n\r\n", 4);
            if (end == NULL)
                break;
            char* field = memmem(start, (size_t)(end - start), "Content-Length:", 15);
            long body = field != NULL ? strtol(field + 15, NULL, 10) : 0;
            if (body < 0 || body > (long)sizeof(msg.text))
                return 1;
            size_t whole = (size_t)(end + 4 - start) + (size_t)body;
            if (used + whole > have)
                break;
            used += whole;
            if (!answered) {
                answered = 1;
                continue;
            }
            memcpy(msg.text, end + 4, (size_t)body);
            if (msgsnd(queue, &msg, (size_t)body, IPC_NOWAIT) == 0)
                sent++;
            else
                failed++;
        }
        memmove(buf, buf + used, have - used);
        have -= used;
        if (have == sizeof(buf))
            return 1; /* a message larger than the whole buffer */
    }
    fprintf(stderr, "pplrelay: %ld sent, %ld failed\n", sent, failed);
    return 0;
}
