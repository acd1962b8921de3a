#include "dns/words.h"

#include <algorithm>
#include <span>

namespace rdbopen {

namespace {

struct Words {
    unsigned code;
    const char* text;
};

constexpr Words rcodes[] = {
    {1, "FORMERR: the server does not understand the message"},
    {2, "SERVFAIL: the server failed; its log says why"},
    {3, "NXDOMAIN: the server does not have the name"},
    {rcodeNotImp, "NOTIMP: the server does not take updates"},
    {rcodeRefused,
     "REFUSED: the key may not do this (its policy needs AAAA and HTTPS), or the zone is frozen, takes no "
     "updates or is not on this server"},
    {6, "YXDOMAIN: a name exists that must not"},
    {7, "YXRRSET: a record set exists that must not"},
    {8, "NXRRSET: a record set is missing"},
    {rcodeNotAuth, "NOTAUTH: the server is not the primary of the zone"},
    {10, "NOTZONE: the name is not in the zone"},
};

constexpr Words tsigErrors[] = {
    {tsigBadSig, "BADSIG: the password is not the secret that the server has for the key"},
    {tsigBadKey, "BADKEY: the server does not know the key with this algorithm, or does not allow it to do this"},
    {tsigBadTrunc, "BADTRUNC: the server does not take signatures of this length"},
};

std::string wordsFor(std::span<const Words> known, unsigned code, const char* subject) {
    const auto found = std::find_if(known.begin(), known.end(), [code](const Words& row) { return row.code == code; });
    return found != known.end() ? found->text : subject + std::to_string(code);
}

}  // namespace

bool isWrongServer(unsigned rcode) {
    return rcode == rcodeNotAuth || rcode == rcodeRefused || rcode == rcodeNotImp;
}

std::string rcodeWords(unsigned rcode) {
    return wordsFor(rcodes, rcode, "the server answers with code ");
}

//  If PowerDNS does not accept the key, it answers queries with NOTAUTH and updates with REFUSED, both without a
//  signature.
std::string unsignedWords(unsigned rcode) {
    std::string text = "the answer is not signed";
    if (rcode == rcodeNoError)
        return text;
    std::string words = rcodeWords(rcode);
    if (rcode == rcodeNotAuth || rcode == rcodeRefused)
        words.insert(words.find(": ") + 2, "the key's name, algorithm or secret is wrong, or ");
    return text.append(" (").append(words).append(")");
}

std::string tsigErrorWords(unsigned error) {
    return wordsFor(tsigErrors, error, "the server refuses the signature with code ");
}

std::string aliasWords(const std::string& owner) {
    return "a CNAME stands at " + owner + " and keeps its other records away";
}

std::string badTimeWords(std::int64_t ahead) {
    if (ahead == 0)
        return "BADTIME: the server refuses the time of the message";
    const std::string seconds = std::to_string(ahead > 0 ? ahead : -ahead) + " s";
    return "BADTIME: the clocks differ, the server's is " + seconds + (ahead > 0 ? " ahead" : " behind");
}

}  // namespace rdbopen
