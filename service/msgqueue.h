//  The control queue: short texts from the child to the waiting parent of a background start.
//
//      | type: long, always 1 | text and terminating zero |       System V message, key 23213
//
//  The parent or the child, whichever is first, creates the queue if it does not exist; the parent removes it. Sending
//  and receiving never wait.
#ifndef SERVICE_MSGQUEUE_H
#define SERVICE_MSGQUEUE_H

#include <cstddef>

class CMsgQueue {
public:
    //  Maximum number of text bytes of a received message.
    static constexpr std::size_t max_text = 512;

    //  Opens the queue with this key; creates it if it does not exist.
    explicit CMsgQueue(int key);

    bool isOpen() const { return id >= 0; }

    //  Sends text. Returns 0, or -1 on failure, for example if there is no queue, no memory for the message or no space
    //  in the queue.
    int send(const char* text);

    //  Takes the next message, of any type, and copies its bytes to text, which must have room for max_text bytes. Adds
    //  no terminating zero; the bytes of text after the message keep their values. Returns the number of bytes, or -1
    //  on failure, for example if there is no queue, no message, or a message that is longer than max_text.
    int receive(char* text);

    //  Removes the queue from the system.
    void remove();

private:
    int id;  // negative if the queue could not be opened
};

#endif
