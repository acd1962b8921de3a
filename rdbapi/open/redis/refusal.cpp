#include "redis/refusal.h"

#include <algorithm>
#include <span>
#include <utility>

namespace rdbopen {

namespace {

constexpr std::size_t maxQuoteLength = 120;
constexpr std::size_t minSecretMatch = 4;  // so many consecutive bytes of a secret are never quoted

struct Meaning {
    std::string_view beginning;  // start of the answer
    std::string_view words;
    bool general = false;  // any command may get this answer, so the reason does not name the command
};

//  Prefixes of answers after which the connection cannot be used any more. A retry on the same connection cannot
//  succeed: a lost login is not renewed, and a replica remains read-only until it is promoted. A new connection logs in
//  again and resolves the server's name again.
constexpr std::string_view endings[] = {"NOAUTH", "READONLY", "MASTERDOWN"};

//  Prefixes of answers of a wrong server. Another address of the name may be the primary, or may have finished loading
//  its data. Other errors are assumed to be the same at each address.
constexpr std::string_view wrongServers[] = {"READONLY", "MASTERDOWN", "LOADING"};

//  Error answers of Redis 7 that have a text of their own. Only their prefixes are compared, because the rest differs
//  between versions.
constexpr Meaning meanings[] = {
    {"WRONGPASS", "user or password is wrong, or the user is switched off"},
    {"NOAUTH", "the connection is not logged in"},
    {"NOPERM", "the user has not every permission that is needed", true},
    {"WRONGTYPE", "a key of another type is in the way"},
    {"READONLY", "the server is a read-only replica", true},
    {"OOM", "the server's memory limit is reached", true},
    {"MISCONF", "the server cannot save to its disk", true},
    {"LOADING", "the server is still loading its data", true},
    {"MASTERDOWN", "the server is a replica that has lost its master", true},
    {"NOREPLICAS", "too few replicas of the server are connected", true},
    {"BUSY", "the server is busy with a script", true},
    {"MOVED", "the server is part of a cluster, which is not supported", true},
    {"ASK", "the server is part of a cluster, which is not supported", true},
    {"CROSSSLOT", "the server is part of a cluster, which is not supported", true},
    {"CLUSTERDOWN", "the server is part of a cluster, which is not supported", true},
    {"DENIED", "the server is in protected mode and takes connections of its own machine only"},
    {"ERR max number of clients reached", "the server has too many connections"},
    {"ERR unknown command", "the command is renamed or switched off at this server, or it is a Sentinel"},
    {"ERR DB index is out of range", "the server has no database of this number"},
};

//  Prefix of an EXECABORT reply; the actual cause follows it.
constexpr std::string_view discarded = "EXECABORT Transaction discarded because of: ";

std::string_view withoutDiscarded(std::string_view answer) {
    return answer.starts_with(discarded) ? answer.substr(discarded.size()) : answer;
}

bool startsWithAny(std::string_view answer, std::span<const std::string_view> beginnings) {
    answer = withoutDiscarded(answer);
    return std::any_of(beginnings.begin(), beginnings.end(),
                       [answer](std::string_view beginning) { return answer.starts_with(beginning); });
}

std::string printable(std::string_view answer) {
    std::string text(answer.substr(0, maxQuoteLength));
    for (char& c : text)
        if (c < ' ' || c > '~')
            c = '?';
    return text;
}

std::string toLowerCase(std::string_view text) {
    std::string small(text);
    for (char& c : small)
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c - 'A' + 'a');
    return small;
}

}  // namespace

bool redisEndsConnection(std::string_view answer) {
    return startsWithAny(answer, endings);
}

bool redisIsWrongServer(std::string_view answer) {
    return startsWithAny(answer, wrongServers);
}

std::size_t redisQuotable(std::string_view answer, std::span<const std::string> secrets) {
    const std::string text = toLowerCase(answer.substr(0, discarded.size() + maxQuoteLength + minSecretMatch));
    std::size_t quotable = text.size();
    for (const std::string& one : secrets) {
        const std::string secret = toLowerCase(one);
        const std::size_t length = std::min(minSecretMatch, secret.size());
        for (std::size_t i = 0; length != 0 && i + length <= secret.size(); ++i)
            quotable = std::min(quotable, text.find(secret.substr(i, length)));
    }
    return quotable;
}

std::string redisRefusal(std::string_view command, std::string_view answer, std::size_t quotable) {
    const std::string_view quoted = withoutDiscarded(answer.substr(0, quotable));
    answer = withoutDiscarded(answer);
    std::string subject = std::string(command) + " refused: ";
    for (const Meaning& meaning : meanings)
        if (answer.starts_with(meaning.beginning)) {
            std::string text = meaning.general ? "refused: " : std::move(subject);
            return text.append(meaning.words).append(" (").append(meaning.beginning).append(")");
        }
    return subject + (quoted.empty() ? "the answer is none of the usual ones" : printable(quoted));
}

}  // namespace rdbopen
