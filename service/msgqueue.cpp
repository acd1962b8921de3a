#include "msgqueue.h"

#include "olk_allocator.h"

#include <cstring>

#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/types.h>

namespace {

constexpr long message_type = 1;

struct ReceivedMessage {
    long type;
    char text[CMsgQueue::max_text];
};

}  // namespace

CMsgQueue::CMsgQueue(int key) : id(msgget(key, IPC_CREAT | 0666)) {}

int CMsgQueue::send(const char* text) {
    if (!isOpen())
        return -1;
    const std::size_t text_size = std::strlen(text) + 1;
    void* message = olk::get_olk_allocator()->malloc_(sizeof message_type + text_size, nullptr);
    if (message == nullptr)
        return -1;
    olk::store_word(message, message_type);
    std::memcpy(olk::at(message, sizeof message_type), text, text_size);
    const int result = msgsnd(id, message, text_size, IPC_NOWAIT);
    olk::get_olk_allocator()->free_(message);
    return result;
}

int CMsgQueue::receive(char* text) {
    ReceivedMessage message;
    const ssize_t length = msgrcv(id, &message, sizeof message.text, 0, IPC_NOWAIT);
    if (length > 0)
        std::memcpy(text, message.text, static_cast<std::size_t>(length));
    return static_cast<int>(length);
}

void CMsgQueue::remove() {
    msgctl(id, IPC_RMID, nullptr);
}
