#include "engine/state_board.h"

#include "engine/state_text.h"

#include <fcntl.h>
#include <mutex>
#include <optional>
#include <unistd.h>
#include <utility>

namespace rdbopen {

constinit StateFile stateFile;

//  The list of all parts. Its members have no destructors, like stateFile.
class StateBoard {
public:
    void set(StatePart& part, std::string text) {
        const std::lock_guard lock(mutex_);
        if (!part.listed_) {
            StatePart** last = &first_;
            while (*last != nullptr)
                last = &(*last)->next_;
            *last = &part;
            part.listed_ = true;
        }
        part.text_ = std::move(text);
        changed_ = true;
    }

    void remove(StatePart& part) noexcept {
        const std::lock_guard lock(mutex_);
        for (StatePart** link = &first_; *link != nullptr; link = &(*link)->next_)
            if (*link == &part) {
                *link = part.next_;
                break;
            }
        part.next_ = nullptr;
        part.listed_ = false;
        part.text_ = {};
        changed_ = true;
    }

    //  Writes until nothing has changed. Returns at once if another thread writes.
    void write() noexcept {
        if (!beginWriting())
            return;
        try {
            while (const std::optional<std::string> text = nextText())
                stateFile.write(*text);
        } catch (...) {
            const std::lock_guard lock(mutex_);
            writing_ = false;
        }
    }

private:
    bool beginWriting() noexcept {
        const std::lock_guard lock(mutex_);
        return !std::exchange(writing_, true);
    }

    //  Returns the text to write, or nothing at the end of writing.
    std::optional<std::string> nextText() {
        const Moment now = momentNow();
        const std::lock_guard lock(mutex_);
        if (!std::exchange(changed_, false)) {
            writing_ = false;
            return {};
        }
        if (started_ == Moment{})
            started_ = now;
        std::string parts;
        for (const StatePart* part = first_; part != nullptr; part = part->next_)
            parts += part->text_;
        return stateFileText({started_, now, bootIdentifier(), getpid()}, parts);
    }

    //  Returns "-" if the file cannot be read, for example in a unit with ProcSubset=pid.
    static std::string bootIdentifier() {
        char text[36];  // a UUID
        const int descriptor = open("/proc/sys/kernel/random/boot_id", O_RDONLY | O_CLOEXEC);
        if (descriptor < 0)
            return "-";
        const ssize_t length = read(descriptor, text, sizeof text);
        close(descriptor);
        return length == sizeof text ? std::string(text, sizeof text) : "-";
    }

    std::mutex mutex_;
    StatePart* first_ = nullptr;  // list of parts, in the order in which they first had lines
    Moment started_;              // of the first write
    bool changed_ = false;
    bool writing_ = false;
};

namespace {

constinit StateBoard board;

}  // namespace

std::string stateFileText(const StateHead& head, std::string_view parts) {
    StateText text;
    text.line(stateFormat)
        .line("library")
        .text(RDBAPI_VERSION)
        .line("pid")
        .number(static_cast<std::uint64_t>(head.pid));
    text.line("boot").text(head.boot).line("started").moment(head.started).line("written").moment(head.written);
    text.lines(parts);
    return std::move(text.line("end")).take();
}

void StatePart::publish(std::string text) noexcept {
    board.set(*this, std::move(text));
    board.write();
}

void StatePart::withdraw() noexcept {
    if (!listed_)
        return;
    board.remove(*this);
    board.write();
}

StatePart::~StatePart() {
    if (listed_)
        board.remove(*this);
}

}  // namespace rdbopen
