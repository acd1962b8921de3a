#include "redis/cluster_layout.h"

#include "redis/place.h"
#include "redis/slots.h"

#include <algorithm>
#include <tuple>

namespace rdbopen {

namespace {

using Kind = RedisReply::Kind;

constexpr std::string_view moved = "MOVED ";
constexpr std::string_view ask = "ASK ";

std::optional<Server> serverOf(std::string_view host, std::string_view port, const Server& asked) {
    return serverFrom(host.empty() ? asked.host : host, port);
}

//  Returns the node in an answer to CLUSTER SLOTS, or nothing if its host and port are not usable. The first elements
//  of node are the host, or nil, and the port; further elements are not used.
std::optional<Server> nodeOf(const RedisReply& node, const Server& asked) {
    const RedisReply& host = node.elements[0];
    const RedisReply& port = node.elements[1];
    return serverOf(host.text, std::to_string(port.integer), asked);
}

bool isNode(const RedisReply& reply) {
    return reply.is(Kind::array) && reply.elements.size() >= 2 &&
           (reply.elements[0].is(Kind::text) || reply.elements[0].is(Kind::nil)) && reply.elements[1].is(Kind::integer);
}

bool isSlot(const RedisReply& reply) {
    return reply.is(Kind::integer) && reply.integer >= 0 && reply.integer < redisSlots;
}

//  The first two elements of a range are slots. The other elements are nodes, and the first node is the master.
bool isRange(const RedisReply& reply) {
    return reply.is(Kind::array) && reply.elements.size() >= 3 && isSlot(reply.elements[0]) &&
           isSlot(reply.elements[1]) && std::all_of(reply.elements.begin() + 2, reply.elements.end(), isNode);
}

void keepEachOnce(std::vector<Server>& nodes) {
    std::sort(nodes.begin(), nodes.end(), [](const Server& one, const Server& other) {
        return std::tie(one.host, one.port) < std::tie(other.host, other.port);
    });
    nodes.erase(std::unique(nodes.begin(), nodes.end()), nodes.end());
}

}  // namespace

const Server* ClusterLayout::masterOf(std::uint16_t slot) const noexcept {
    for (const Range& range : ranges)
        if (range.first <= slot && slot <= range.last)
            return &range.master;
    return nullptr;
}

Result<ClusterLayout> readClusterSlots(const RedisReply& reply, const Server& asked) {
    if (!reply.is(Kind::array) || !std::all_of(reply.elements.begin(), reply.elements.end(), isRange))
        return notUnderstood("CLUSTER SLOTS");
    ClusterLayout layout;
    for (const RedisReply& range : reply.elements) {
        const std::optional<Server> master = nodeOf(range.elements[2], asked);
        if (master)
            layout.ranges.push_back({static_cast<std::uint16_t>(range.elements[0].integer),
                                     static_cast<std::uint16_t>(range.elements[1].integer), *master});
        for (std::size_t i = 2; i < range.elements.size(); ++i)
            if (std::optional<Server> node = nodeOf(range.elements[i], asked))
                layout.nodes.push_back(std::move(*node));
    }
    keepEachOnce(layout.nodes);
    return layout;
}

bool isRedirection(const RedisReply& reply) noexcept {
    return reply.is(Kind::error) && (reply.text.starts_with(moved) || reply.text.starts_with(ask));
}

//  The slot in the answer is not read, because it is the slot of the command.
std::optional<Redirection> readRedirection(const RedisReply& reply, const Server& asked) {
    const std::string_view text = reply.text;
    const std::size_t place = text.rfind(' ') + 1;
    const std::size_t colon = text.rfind(':');
    if (colon == std::string_view::npos || colon < place)
        return std::nullopt;
    std::optional<Server> target = serverOf(text.substr(place, colon - place), text.substr(colon + 1), asked);
    if (!target)
        return std::nullopt;
    return Redirection{text.starts_with(ask), std::move(*target)};
}

}  // namespace rdbopen
