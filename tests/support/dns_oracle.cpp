//  Makes and checks DNS messages with the code of the open client library. The test compares them with those of another
//  implementation. The program reads one command per line from standard input and writes one line for each command. A
//  message is written as hexadecimal digits, an empty list of addresses or ports as "-".
//
//      update ID TIME KEY ALGORITHM SECRET ZONE TTL NAME ADDRESS,... PORT,...  -> the signed message, or "refused"
//      query  ID TIME KEY ALGORITHM SECRET OWNER TYPE                          -> the signed message, or "refused"
//      answer NOW ANSWER    checks an answer to the last message    -> "whole RCODE" (the answer is authentic),
//                           "refusal: REASON" (the server rejects the request's signature) or "none: REASON" (the
//                           answer cannot be used)
#include "dns/records.h"
#include "dns/tsig.h"
#include "dns/zone_url.h"

#include <cstdio>
#include <iostream>
#include <sstream>

namespace {

using namespace rdbopen;

TsigKey key;
SignedRequest request;

DnsBytes fromHex(const std::string& digits) {
    DnsBytes bytes;
    for (std::size_t i = 0; i + 1 < digits.size(); i += 2)
        bytes.push_back(static_cast<std::uint8_t>(std::stoi(digits.substr(i, 2), nullptr, 16)));
    return bytes;
}

std::vector<std::string> split(const std::string& list) {
    std::vector<std::string> words;
    std::istringstream text(list == "-" ? "" : list);
    for (std::string word; std::getline(text, word, ',');)
        words.push_back(word);
    return words;
}

Result<DnsBytes> update(std::uint16_t id, std::istream& words) {
    DnsZone zone;
    std::string name;
    std::string addresses;
    std::string ports;
    words >> zone.zone >> zone.ttl >> name >> addresses >> ports;
    const Result<std::string> full = nameInZone(name, zone.zone);
    if (!full.ok())
        return full.status();
    std::vector<std::uint16_t> numbers;
    for (const std::string& port : split(ports))
        numbers.push_back(static_cast<std::uint16_t>(std::stoi(port)));
    return updateMessage(id, zone.zone, zone.ttl, recordSets(*full, ipv6Addresses(split(addresses)), numbers));
}

DnsBytes query(std::uint16_t id, std::istream& words) {
    std::string owner;
    std::uint16_t type = 0;
    words >> owner >> type;
    return queryMessage(id, owner, type);
}

std::string makeRequest(const std::string& kind, std::istream& words) {
    std::uint16_t id = 0;
    std::int64_t time = 0;
    words >> id >> time >> key.name >> key.algorithm >> key.secret;
    Result<DnsBytes> message = kind == "update" ? update(id, words) : query(id, words);
    if (!message.ok())
        return "refused";
    Result<SignedRequest> made = signRequest(std::move(*message), key, time);
    if (!made.ok())
        return "refused";
    request = std::move(*made);
    std::ostringstream digits;
    for (const std::uint8_t byte : request.wire) {
        char pair[3];
        std::snprintf(pair, sizeof pair, "%02x", byte);
        digits << pair;
    }
    return digits.str();
}

std::string judge(std::istream& words) {
    std::int64_t now = 0;
    std::string digits;
    words >> now >> digits;
    const Answer answer = readAnswer(fromHex(digits), request, key, now);
    if (answer.ok())
        return "whole " + std::to_string(rcodeOf(**answer));
    return (answer.status().code == errorServerRefused ? "refusal: " : "none: ") + answer.status().reason;
}

}  // namespace

int main() {
    for (std::string line; std::getline(std::cin, line);) {
        std::istringstream words(line);
        std::string kind;
        words >> kind;
        std::cout << (kind == "answer" ? judge(words) : makeRequest(kind, words)) << "\n" << std::flush;
    }
    return 0;
}
