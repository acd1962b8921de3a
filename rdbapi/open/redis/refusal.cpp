#include "redis/refusal.h"

#include <algorithm>
#include <span>
#include <utility>

namespace rdbopen {

namespace {

constexpr std::size_t maxQuoteLength = 120;
constexpr std::size_t minSecretMatch = 4;  // fewer consecutive bytes of a longer secret may be quoted

struct Meaning {
    std::string_view beginning;  // start of the answer
    std::string_view words;
    bool general = false;  // any command may get this answer, so the reason does not name the command
};

constexpr std::string_view noPermission = "NOPERM";
constexpr std::string_view clusterNode =
    "the server is part of a cluster: the scheme for it is redis+cluster or rediss+cluster";

//  The error of a script that accesses a key which the node does not serve, or no longer serves.
constexpr std::string_view nonLocalKey = "ERR Script attempted to access a non local key";

//  Prefixes of answers after which the connection is useless. A retry on the same connection cannot succeed: the login
//  is not repeated, and a replica refuses writes until it is promoted. A new connection resolves the name again.
constexpr std::string_view endings[] = {"NOAUTH", "READONLY", "MASTERDOWN"};

//  Prefixes of answers of a replica and of a server that still loads its data. The server at another address of the
//  name may execute the command. All other errors of a command after the login are assumed to be the same at each
//  address of a name.
constexpr std::string_view wrongServers[] = {"READONLY", "MASTERDOWN", "LOADING"};

//  Prefixes of answers of a primary that takes no writes at present.
constexpr std::string_view noWrites[] = {"OOM", "MISCONF", "NOREPLICAS"};

//  Prefixes of answers of a cluster that is being changed or is down. This node or another node may soon serve the
//  command.
constexpr std::string_view stalls[] = {"TRYAGAIN", "CLUSTERDOWN", nonLocalKey};

//  Prefixes of error answers of Redis 5 to 7, and the reason for each. Only prefixes are compared, because the rest of
//  an answer differs between versions.
constexpr Meaning meanings[] = {
    {"WRONGPASS", "user or password is wrong, or the user is switched off"},
    {"NOAUTH", "the connection is not logged in"},
    {noPermission, "the user has not every permission that is needed", true},
    {"WRONGTYPE", "a key of another type is in the way", true},
    {"READONLY", "the server is a read-only replica", true},
    {"OOM", "the server's memory limit is reached", true},
    {"MISCONF", "the server cannot save to its disk", true},
    {"LOADING", "the server is still loading its data", true},
    {"MASTERDOWN", "the server is a replica that has lost its master", true},
    {"NOREPLICAS", "too few replicas of the server are connected", true},
    {"BUSY", "the server is busy with a script", true},
    {"MOVED", clusterNode, true},
    {"ASK", clusterNode, true},
    {"CROSSSLOT", clusterNode, true},
    {"TRYAGAIN", "the cluster is moving the name's keys to another node", true},
    {"CLUSTERDOWN", "the cluster is down, or has no master for the name's keys", true},
    {nonLocalKey, "the cluster is moving the name's keys to another node", true},
    {"ERR This instance has cluster support disabled",
     "the server is not part of a cluster: the scheme for it is without +cluster", true},
    {"ERR SELECT is not allowed in cluster mode",
     "the server is part of a cluster, which has only database 0: the scheme for it is redis+cluster or rediss+cluster",
     true},
    {"DENIED", "the server is in protected mode and takes connections of its own machine only"},
    {"ERR max number of clients reached", "the server has too many connections"},
    {"ERR unknown command", "the command is renamed or switched off at this server, or it is a Sentinel"},
    {"ERR Unknown Redis command called from script", "a command is renamed or switched off at this server"},
    {"ERR Invalid command passed to redis.acl_check_cmd", "a command is renamed or switched off at this server"},
    {"Unknown Redis command called from Lua script", "a command is renamed or switched off at this server"},
    {"ERR DB index is out of range", "the server has no database of this number"},
};

//  The texts around the error of a script (refusal.h). scriptFailed is followed by the hash of the script and then by
//  one or two places in the script. Each place begins with scriptPlace and ends with ": ".
constexpr std::string_view scriptFailed = "ERR Error running script (call to f_";
constexpr std::string_view scriptPlace = "@user_script:";
constexpr std::string_view scriptPlaceAfter = " script: ";
constexpr std::size_t maxWrapping = 160;

//  The error texts that a script gets instead of NOPERM. In Redis 7.0, the text begins with "ERR ".
constexpr std::string_view deniedScripts[] = {"The user executing the script can't",
                                              "ERR The user executing the script can't"};

//  Returns the error in the answer to a script, or any other answer unchanged.
std::string_view unwrapped(std::string_view answer) {
    if (answer.starts_with(scriptFailed)) {
        answer.remove_prefix(std::min(answer.find(scriptPlace), answer.size()));
        while (answer.starts_with(scriptPlace))
            answer.remove_prefix(std::min(answer.find(": ", scriptPlace.size() + 1), answer.size() - 2) + 2);
        if (answer.starts_with('-'))
            answer.remove_prefix(1);
    }
    for (const std::string_view denied : deniedScripts)
        if (answer.starts_with(denied))
            return noPermission;
    const std::size_t end = answer.find(scriptPlaceAfter);
    return end != std::string_view::npos && answer.find(scriptPlace, end) != std::string_view::npos
               ? answer.substr(0, end)
               : answer;
}

bool startsWithAny(std::string_view answer, std::span<const std::string_view> beginnings) {
    answer = unwrapped(answer);
    return std::any_of(beginnings.begin(), beginnings.end(),
                       [answer](std::string_view beginning) { return answer.starts_with(beginning); });
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

bool redisTakesNoWrites(std::string_view answer) {
    return startsWithAny(answer, noWrites);
}

bool redisStalls(std::string_view answer) {
    return startsWithAny(answer, stalls);
}

std::size_t redisQuotable(std::string_view answer, std::span<const std::string> secrets) {
    const std::string text = toLowerCase(answer.substr(0, maxWrapping + maxQuoteLength + minSecretMatch));
    std::size_t quotable = text.size();
    for (const std::string& one : secrets) {
        const std::string secret = toLowerCase(one);
        const std::size_t length = std::min(minSecretMatch, secret.size());
        for (std::size_t i = 0; length != 0 && i + length <= secret.size(); ++i)
            quotable = std::min(quotable, text.find(secret.substr(i, length)));
    }
    return quotable;
}

std::string redisPrintable(std::string_view text) {
    std::string shown(text.substr(0, maxQuoteLength));
    for (char& c : shown)
        if (c < ' ' || c > '~')
            c = '?';
    return shown;
}

std::string redisRefusal(std::string_view command, std::string_view answer, std::size_t quotable) {
    const std::string_view quoted = unwrapped(answer.substr(0, quotable));
    answer = unwrapped(answer);
    std::string subject = std::string(command) + " refused: ";
    for (const Meaning& meaning : meanings)
        if (answer.starts_with(meaning.beginning)) {
            std::string text = meaning.general ? "refused: " : std::move(subject);
            return text.append(meaning.words).append(" (").append(meaning.beginning).append(")");
        }
    return subject + (quoted.empty() ? "the answer is none of the usual ones" : redisPrintable(quoted));
}

}  // namespace rdbopen
