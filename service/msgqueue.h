//  The control queue: short texts from the starting child to the waiting parent.
//
//      | type: long, always 1 | text and its terminating zero |       System V message, key 23213
//
//  The queue is made by whoever comes first and removed by the parent. Neither side ever waits on it.
#ifndef SERVICE_MSGQUEUE_H
#define SERVICE_MSGQUEUE_H

#include <cstddef>

class CMsgQueue {
public:
    //  Bytes of text that a received message may have.
    static constexpr std::size_t max_text = 512;

    //  Opens the queue with this key, and makes it when it is missing.
    explicit CMsgQueue(int key);

    bool isOpen() const { return id >= 0; }

    //  Sends text. Returns 0, or -1 when there is no queue, no memory for the message or no room in the queue.
    int send(const char* text);

    //  Takes the next message, of any type, and copies its bytes to text, which has room for max_text; what stands behind
    //  them stays, and no zero is added. Returns the number of bytes, or -1 when there is no message or it has more than
    //  max_text bytes.
    int receive(char* text);

    //  Removes the queue from the system.
    void remove();

private:
    int id;  // negative when the queue could not be had
};

#endif
