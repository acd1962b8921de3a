//  A second implementation of the url parser. It splits the text at the delimiters into scheme, host part and rest,
//  then splits each part.
#ifndef TESTS_SUPPORT_URL_MODEL_H
#define TESTS_SUPPORT_URL_MODEL_H

#include "port_list_model.h"

#include <cstdint>
#include <functional>
#include <string>
#include <tuple>
#include <utility>

struct UrlModel {
    //  Returns the two address texts of a host; both are empty if it does not resolve.
    using Resolver = std::function<std::pair<std::string, std::string>(const std::string&)>;

    bool good = false;
    std::uint16_t port = 0;
    std::string scheme, ipv4, ipv6, path, args, host;

    UrlModel() = default;
    UrlModel(const std::string& text, const Resolver& resolve) {
        const std::string rest = without_scheme(text);
        std::string tail;
        good = rest[0] == '[' ? bracketed(rest.substr(1), resolve, tail) : plain(rest, resolve, tail);
        if (!good)
            return;
        const std::size_t question = tail.find('?');
        path = tail.substr(0, question);
        if (question != std::string::npos)
            args = tail.substr(question + 1, tail.find('\n', question) - question - 1);
    }

private:
    static bool has(std::size_t position) { return position != std::string::npos; }

    static std::uint16_t to_port(const std::string& text) {
        return static_cast<std::uint16_t>(static_cast<std::uint64_t>(modelDecimal(text.c_str())) & 0xffff);
    }

    //  A text has a scheme if text precedes its first colon, "//" follows the colon, and more text follows "//".
    std::string without_scheme(const std::string& text) {
        const std::size_t colon = text.find(':');
        if (!has(colon) || colon == 0 || text.compare(colon, 3, "://") != 0 || text.size() == colon + 3)
            return text;
        scheme = text.substr(0, colon);
        return text.substr(colon + 3);
    }

    bool resolved(const std::string& name, const Resolver& resolve) {
        if (name.empty())
            return false;
        std::tie(ipv4, ipv6) = resolve(name.c_str());
        return !ipv4.empty() || !ipv6.empty();
    }

    bool bracketed(const std::string& rest, const Resolver& resolve, std::string& tail) {
        const std::size_t close = rest.find(']');
        const std::string name = rest.substr(0, close);
        if (!resolved(name, resolve))
            return false;
        host = "[" + name + "]";
        tail = has(close) ? rest.substr(close + 1) : "";
        if (tail[0] == '/')
            tail.erase(0, 1);
        else if (tail[0] == ':')
            return with_port(tail.substr(1), tail);
        return true;
    }

    //  The first slash ends the port. If `text` has no slash, the first question mark ends it.
    bool with_port(const std::string& text, std::string& tail) {
        const std::size_t slash = text.find('/');
        const std::size_t end = has(slash) ? slash : text.find('?');
        const std::string digits = text.substr(0, end);
        tail = has(slash) ? text.substr(slash + 1) : has(end) ? text.substr(end) : "";
        if (digits.empty())
            return false;
        port = to_port(digits);
        host += ":" + digits;
        return true;
    }

    bool plain(const std::string& rest, const Resolver& resolve, std::string& tail) {
        const std::size_t slash = rest.find('/');
        const std::size_t end = has(slash) ? slash : rest.find('?');
        host = rest.substr(0, end);
        tail = has(slash) ? rest.substr(slash + 1) : has(end) ? rest.substr(end) : "";
        const std::size_t colon = host.find(':');
        if (!resolved(host.substr(0, colon), resolve))
            return false;
        if (has(colon))
            port = to_port(host.substr(colon + 1));
        return true;
    }
};

#endif
