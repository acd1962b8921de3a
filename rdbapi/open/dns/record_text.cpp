#include "dns/record_text.h"

#include "dns/layout.h"
#include "dns/records.h"
#include "net/host_name.h"

#include <algorithm>
#include <arpa/inet.h>
#include <stdbool.h>  // otherwise ldns defines bool, true and false as macros

#include <ldns/ldns.h>
#include <memory>
#include <stdlib.h>

namespace rdbopen {

namespace {

//  Reads data from its start to its end. ok() is false after a read beyond the end.
class Reader {
public:
    explicit Reader(std::span<const std::uint8_t> data) : rest_(data) {}

    bool ok() const noexcept { return ok_; }
    bool atEnd() const noexcept { return rest_.empty(); }

    std::span<const std::uint8_t> bytes(std::size_t count) {
        ok_ = ok_ && count <= rest_.size();
        const auto found = rest_.first(ok_ ? count : 0);
        rest_ = rest_.subspan(found.size());
        return found;
    }

    unsigned number() {
        const auto found = bytes(2);
        return ok_ ? readDns16(found.data()) : 0;
    }

    //  Reads a name without compression. Returns it in lower case, without the final dot.
    std::string name() {
        std::string text;
        for (;;) {
            const auto length = bytes(1);
            if (!ok_ || length[0] == 0)
                return lowerCase(text);
            const auto label = bytes(length[0]);
            text.append(text.empty() ? "" : ".").append(label.begin(), label.end());
        }
    }

private:
    std::span<const std::uint8_t> rest_;
    bool ok_ = true;
};

std::string typeText(std::uint16_t type) {
    const std::unique_ptr<char, void (*)(void*)> text(ldns_rr_type2str(static_cast<ldns_rr_type>(type)), std::free);
    return type == typeHttps || text == nullptr ? "HTTPS" : text.get();
}

std::string httpsText(const OwnHttps& record) {
    std::string text = std::to_string(record.priority) + " " + record.target + ".";
    if (record.port != 0)
        text += " port=" + std::to_string(record.port);
    for (std::size_t i = 0; i < record.hints.size(); ++i)
        text += (i == 0 ? " ipv6hint=" : ",") + addressText(record.hints[i]);
    return text;
}

}  // namespace

std::optional<OwnHttps> parseOwnHttps(std::span<const std::uint8_t> data) {
    Reader reader(data);
    OwnHttps record;
    record.priority = reader.number();
    record.target = reader.name();
    while (reader.ok() && !reader.atEnd()) {
        const unsigned key = reader.number();
        Reader value(reader.bytes(reader.number()));
        if (key == keyPort)
            record.port = value.number();
        else if (key != keyIpv6Hint)
            return {};
        while (key == keyIpv6Hint && value.ok() && !value.atEnd()) {
            const auto hint = value.bytes(sizeof(Ipv6Address));
            if (value.ok())
                std::copy(hint.begin(), hint.end(), record.hints.emplace_back().begin());
        }
        if (!value.ok() || !value.atEnd())
            return {};
    }
    const bool valid = reader.ok() && record.priority != 0 && !record.hints.empty();
    return valid ? std::optional(std::move(record)) : std::nullopt;
}

std::string addressText(std::span<const std::uint8_t> address) {
    char text[INET6_ADDRSTRLEN];
    return inet_ntop(AF_INET6, address.data(), text, sizeof text);
}

std::optional<std::string> pointerTarget(std::span<const std::uint8_t> data) {
    Reader reader(data);
    std::string name = reader.name();
    return reader.ok() && reader.atEnd() ? std::optional(std::move(name)) : std::nullopt;
}

std::string recordText(const std::string& owner, std::uint16_t type, std::span<const std::uint8_t> data) {
    std::string front = owner + " " + typeText(type);
    if (type == typeAaaa && data.size() == sizeof(Ipv6Address))
        return front + " " + addressText(data);
    if (type == typeHttps)
        if (const auto record = parseOwnHttps(data))
            return front + " " + httpsText(*record);
    if (type == typePtr)
        if (const auto target = pointerTarget(data))
            return front + " " + *target;
    return front;
}

}  // namespace rdbopen
